#include <gtest/gtest.h>

#include <glib.h>

#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include "TPM2.h"
#include "TPM2Helpers.h"
#include "TestSupport.h"

// The TPM tests need a TPM simulator reachable through the default TCTI; CTest runs them
// through tests/with-swtpm, which gives each test its own.

namespace {

// tpm2-tools talking to the same simulator.
bool tpm2_tool(std::vector<std::string> args, std::string* out = nullptr) {
    args.insert(args.begin() + 1, {"-T", "swtpm:host=127.0.0.1,port=2321"});
    return run(args, out);
}

const GLogLevelFlags M = G_LOG_LEVEL_MESSAGE;

class TPM2Test : public testing::Test {
  protected:
    void SetUp() override {
        if (!getenv("ZEL_SWTPM_PID"))
            GTEST_SKIP() << "no TPM simulator: run through tests/with-swtpm";
    }

    std::string handles(const char* kind) {
        std::string out;
        EXPECT_TRUE(tpm2_tool({"tpm2_getcap", std::string("handles-") + kind}, &out));
        return out;
    }
};

TEST(TPM2PaddingTest, ParsePaddingAndValueErrors) {
    const std::vector<std::tuple<const char*, const char*, TPM2::Padding>> table = {
        {"rsaes", "whatever", TPM2::RSAES},        {"oaep", "sha1", TPM2::OAEP_SHA1},
        {"oaep", "sha256", TPM2::OAEP_SHA256},     {"oaep", "SHA256", TPM2::UNKNOWN_PADDING},
        {"oaep", "sha384", TPM2::UNKNOWN_PADDING}, {"RSAES", "", TPM2::UNKNOWN_PADDING},
        {"pss", "sha256", TPM2::UNKNOWN_PADDING},
    };
    for (const auto& [padding, hash, expected] : table)
        EXPECT_EQ(TPM2::parse_padding(padding, hash), expected) << padding << "/" << hash;

    // TPM_RC_VALUE blaming nothing, parameter 1 or session 1 is a value error; a TPM failure,
    // a handle error and TPM_RC_VALUE from the ESYS or TCTI layer are not (rows in that order).
    const std::vector<std::pair<TSS2_RC, bool>> errors = {
        {0x084, true},  {0x1C4, true},    {0x984, true},    {0x101, false},
        {0x08B, false}, {0x70084, false}, {0xA0084, false},
    };
    for (const auto& [rc, expected] : errors)
        EXPECT_EQ(tpm2_rc_is_value_error(rc), expected) << std::hex << rc;
}

// The qualified name ties the key to the endorsement hierarchy: SHA-256 over the hierarchy's
// handle and the key's name, behind the algorithm identifier.
TEST(TPM2KeyCheckTest, TemplateAndQualifiedName) {
    TPM2B_NAME name{34, {}};
    for (int i = 0; i < 34; i++)
        name.name[i] = static_cast<BYTE>(i);
    const GChecksumPtr sha(g_checksum_new(G_CHECKSUM_SHA256));
    const guchar endorsement[4] = {0x40, 0x00, 0x00, 0x0B};
    g_checksum_update(sha.get(), endorsement, 4);
    g_checksum_update(sha.get(), name.name, name.size);
    TPM2B_NAME qualified{34, {0x00, 0x0B}};
    gsize len = 32;
    g_checksum_get_digest(sha.get(), qualified.name + 2, &len);

    const TPMT_PUBLIC good = TPM2::authkey_tmpl.publicArea;
    EXPECT_TRUE(TPM2::check_auth_key_pub(good, name, qualified));
    TPM2B_NAME owner = qualified;  // the same key in the owner hierarchy
    owner.name[33] ^= 1;
    EXPECT_FALSE(TPM2::check_auth_key_pub(good, name, owner));

    std::vector<TPMT_PUBLIC> bad(6, good);
    bad[0].parameters.rsaDetail.keyBits = 3072;
    bad[1].objectAttributes |= TPMA_OBJECT_RESTRICTED;
    bad[2].nameAlg = TPM2_ALG_SHA1;
    bad[3].parameters.rsaDetail.exponent = 3;
    bad[4].authPolicy.size = 32;
    bad[5].parameters.rsaDetail.scheme.scheme = TPM2_ALG_OAEP;
    for (const TPMT_PUBLIC& pub : bad)
        EXPECT_FALSE(TPM2::check_auth_key_pub(pub, name, qualified));

    LogCapture log;
    qualified.size = 32;
    EXPECT_FALSE(TPM2::check_auth_key_pub(good, name, qualified));
    EXPECT_TRUE(log.logged(G_LOG_LEVEL_CRITICAL, "unexpected TPM2 qualified name length (32)"));
}

// (the key's template is checked black-box: its name is the one the factory derives)
TEST_F(TPM2Test, FirstOpenPersistsTheKeyLaterOnesLoadIt) {
    for (const bool first : {true, false}) {
        LogCapture log;
        TPM2 tpm;
        ASSERT_TRUE(tpm.open()) << log.dump();
        EXPECT_TRUE(tpm.is_open());
        EXPECT_EQ(log.logged(M, "creating", true), first) << log.dump();
        EXPECT_EQ(log.logged(M, "TPM2 RSA auth key saved to persistent handle 0x81018001"), first);
        tpm.close();
        EXPECT_FALSE(tpm.is_open());
    }
    EXPECT_EQ(handles("persistent"), "- 0x81018001\n");
    EXPECT_EQ(handles("transient"), "");
}

TEST_F(TPM2Test, MismatchingKeyAtTheHandleGivesATransientKey) {
    const TempDir dir;
    const std::string other = dir.file("other.ctx");
    ASSERT_TRUE(tpm2_tool({"tpm2_createprimary", "-C", "e", "-G", "rsa3072", "-c", other}));
    ASSERT_TRUE(tpm2_tool({"tpm2_evictcontrol", "-C", "o", "-c", other, "0x81018001"}));
    ASSERT_TRUE(tpm2_tool({"tpm2_flushcontext", "-t"}));

    LogCapture log;
    TPM2 tpm;
    ASSERT_TRUE(tpm.open()) << log.dump();
    EXPECT_TRUE(log.logged(G_LOG_LEVEL_WARNING,
                           "TPM2 RSA authentication key from persistent handle does not "
                           "match requirements, ignoring"));
    EXPECT_TRUE(log.logged(M,
                           "could not save TPM2 RSA auth key in persistent handle, handle "
                           "already exists"));
    EXPECT_EQ(handles("transient"), "- 0x80000000\n");
    tpm.close();
    EXPECT_EQ(handles("transient"), "");
}

}  // namespace
