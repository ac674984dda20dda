#include <gtest/gtest.h>

#include <glib.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cerrno>
#include <memory>

#include "CertificateSignRequest.h"
#include "CryptoTestUtils.h"

namespace {

bool starts_with(const std::string& text, const std::string& prefix) {
    return text.rfind(prefix, 0) == 0;
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

DeviceInfo device(const char* serial, const char* model, const char* brand) {
    DeviceInfo info;
    info.serial = serial;
    info.model = model;
    info.brand = brand;
    info.userSerial = "user-sn";  // the alternative serials stay out of the subject
    info.boardSerial = "board-sn";
    return info;
}

struct ToolView {
    bool verified = false;
    std::string text;
    std::string public_pem;
};

// What the openssl tool makes of a request.
ToolView inspect(const TempDir& dir, const std::string& pem) {
    ToolView view;
    const std::string path = dir.file("req.pem");
    if (!write_text_file(path, pem))
        return view;
    std::string err;
    view.verified = run_command({"openssl", "req", "-in", path, "-verify", "-noout", "-text"},
                                &view.text, &err) &&
                    contains(err + view.text, "verify OK");
    run_command({"openssl", "req", "-in", path, "-pubkey", "-noout"}, &view.public_pem);
    return view;
}

class CertificateSignRequestTest : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        dir = std::make_unique<TempDir>();
        ASSERT_FALSE(dir->path.empty());
        ASSERT_TRUE(make_rsa_key(dir->file("rsa.key")));
        ASSERT_TRUE(make_ec_key(dir->file("ec.key")));
        ASSERT_TRUE(run_command(
            {"openssl", "genpkey", "-algorithm", "ED25519", "-out", dir->file("ed25519.key")}));
        ASSERT_TRUE(write_text_file(dir->file("garbage.key"), "not a key\n"));
    }
    static void TearDownTestSuite() { dir.reset(); }

    static std::string path(const char* name) { return dir->file(name); }
    static std::string tool_public_pem(const char* key) {
        std::string pem;
        EXPECT_TRUE(run_command({"openssl", "pkey", "-in", path(key), "-pubout"}, &pem));
        return pem;
    }

    static std::unique_ptr<TempDir> dir;
};

std::unique_ptr<TempDir> CertificateSignRequestTest::dir;

TEST_F(CertificateSignRequestTest, ToolVerifiesRequestForRsaAndEcKeys) {
    struct Case {
        const char* key;
        const char* signature;
    };
    for (const Case& c :
         {Case{"rsa.key", "sha256WithRSAEncryption"}, Case{"ec.key", "ecdsa-with-SHA256"}}) {
        SCOPED_TRACE(c.key);
        CertificateSignRequest csr;
        ASSERT_TRUE(csr.create(path(c.key).c_str(), device("ZL0123456789", "ZP-500", "Corvanta")))
            << csr.error;
        const std::string pem = csr.get_pem();
        EXPECT_TRUE(starts_with(pem, "-----BEGIN CERTIFICATE REQUEST-----\n")) << pem;
        EXPECT_TRUE(csr.error.empty()) << csr.error;

        const ToolView view = inspect(*dir, pem);
        EXPECT_TRUE(view.verified) << view.text;
        EXPECT_TRUE(contains(view.text, "Version: 1 (0x0)")) << view.text;
        EXPECT_TRUE(contains(view.text,
                             "Subject: O = Corvanta, OU = ZelPlayer, dnQualifier = ZP-500, "
                             "CN = ZL0123456789, serialNumber = ZL0123456789\n"))
            << view.text;
        EXPECT_TRUE(contains(view.text, std::string("Signature Algorithm: ") + c.signature))
            << view.text;
        EXPECT_TRUE(contains(view.text, "Attributes:\n            (none)")) << view.text;
        EXPECT_EQ(view.public_pem, tool_public_pem(c.key));
    }
}

TEST_F(CertificateSignRequestTest, SubjectEntriesAreSeparateAndWhole) {
    // blanks, commas and dots must survive in full, each entry in its own RDN
    CertificateSignRequest csr;
    ASSERT_TRUE(csr.create(path("ec.key").c_str(), device("SN 42-A", "Model 7. Pro", "Acme, Inc.")))
        << csr.error;
    const std::string pem = csr.get_pem();
    const OpenSSLPtr<BIO> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    const OpenSSLPtr<X509_REQ> req(PEM_read_bio_X509_REQ(bio.get(), nullptr, nullptr, nullptr));
    ASSERT_TRUE(req);
    EXPECT_EQ(X509_REQ_get_version(req.get()), 0);

    const X509_NAME* const name = X509_REQ_get_subject_name(req.get());
    const std::pair<int, const char*> expected[] = {{NID_organizationName, "Acme, Inc."},
                                                    {NID_organizationalUnitName, "ZelPlayer"},
                                                    {NID_dnQualifier, "Model 7. Pro"},
                                                    {NID_commonName, "SN 42-A"},
                                                    {NID_serialNumber, "SN 42-A"}};
    ASSERT_EQ(X509_NAME_entry_count(name), 5);
    for (int i = 0; i < 5; ++i) {
        SCOPED_TRACE(i);
        const X509_NAME_ENTRY* const entry = X509_NAME_get_entry(name, i);
        EXPECT_EQ(OBJ_obj2nid(X509_NAME_ENTRY_get_object(entry)), expected[i].first);
        EXPECT_EQ(X509_NAME_ENTRY_set(entry), i);
        const ASN1_STRING* const value = X509_NAME_ENTRY_get_data(entry);
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(ASN1_STRING_get0_data(value)),
                              static_cast<size_t>(ASN1_STRING_length(value))),
                  expected[i].second);
    }
    EXPECT_EQ(X509_REQ_get_attr_count(req.get()), 0);
}

TEST_F(CertificateSignRequestTest, KeyLoadFailuresNestTheKeyMessage) {
    const std::string missing = path("missing.key");
    CertificateSignRequest csr;
    EXPECT_FALSE(csr.create(missing.c_str(), device("SN", "M", "B")));
    EXPECT_EQ(csr.error, "failed to load private key file '" + missing +
                             "': failed to open private key file '" + missing + ": " +
                             g_strerror(ENOENT));
    EXPECT_FALSE(csr.req);

    const std::string garbage = path("garbage.key");
    EXPECT_FALSE(csr.create(garbage.c_str(), device("SN", "M", "B")));
    EXPECT_TRUE(starts_with(csr.error, "failed to load private key file '" + garbage + "': error:"))
        << csr.error;
    EXPECT_FALSE(csr.req);
}

TEST_F(CertificateSignRequestTest, OpenSSLRejectionsGiveItsReason) {
    struct Case {
        const char* key;
        DeviceInfo info;
    };
    // an empty organisation or serial, a serial that is not printable, and a key type
    // that cannot sign with SHA-256
    for (const Case& c :
         {Case{"ec.key", device("SN", "M", "")}, Case{"ec.key", device("", "M", "B")},
          Case{"ec.key", device("SN\"+", "M", "B")}, Case{"ed25519.key", device("SN", "M", "B")}}) {
        SCOPED_TRACE(c.key + (": " + c.info.serial + "/" + c.info.brand));
        CertificateSignRequest csr;
        EXPECT_FALSE(csr.create(path(c.key).c_str(), c.info));
        EXPECT_TRUE(starts_with(csr.error, "error:")) << csr.error;
    }
}

TEST_F(CertificateSignRequestTest, NoPemWithoutRequest) {
    CertificateSignRequest csr;
    EXPECT_EQ(csr.get_pem(), "");
    EXPECT_EQ(csr.error, "no certificate signing request loaded");

    // a failed create drops the request made before
    CertificateSignRequest failed;
    ASSERT_TRUE(failed.create(path("rsa.key").c_str(), device("SN", "M", "B")));
    EXPECT_FALSE(failed.create(path("missing.key").c_str(), device("SN", "M", "B")));
    EXPECT_EQ(failed.get_pem(), "");
    EXPECT_EQ(failed.error, "no certificate signing request loaded");

    CertificateSignRequest cleared;
    ASSERT_TRUE(cleared.create(path("rsa.key").c_str(), device("SN", "M", "B")));
    cleared.clear();
    EXPECT_FALSE(cleared.req);
    EXPECT_EQ(cleared.get_pem(), "");
}

TEST_F(CertificateSignRequestTest, CreateTwiceReplaces) {
    CertificateSignRequest csr;
    ASSERT_TRUE(csr.create(path("rsa.key").c_str(), device("FIRST", "M1", "B1")));
    const std::string first = csr.get_pem();
    ASSERT_TRUE(csr.create(path("ec.key").c_str(), device("SECOND", "M2", "B2")));
    const std::string second = csr.get_pem();
    EXPECT_NE(first, second);

    const ToolView view = inspect(*dir, second);
    EXPECT_TRUE(view.verified);
    EXPECT_TRUE(contains(view.text,
                         "Subject: O = B2, OU = ZelPlayer, dnQualifier = M2, CN = SECOND, "
                         "serialNumber = SECOND\n"))
        << view.text;
    EXPECT_EQ(view.public_pem, tool_public_pem("ec.key"));
}

}  // namespace
