#include <gtest/gtest.h>

#include <glib.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <cerrno>
#include <memory>

#include "CryptoTestUtils.h"
#include "Key.h"
#include "OpenSSLUtils.h"

namespace {

class KeyTest : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        dir = std::make_unique<TempDir>();
        ASSERT_FALSE(dir->path.empty());
        ASSERT_TRUE(make_rsa_key(dir->file("rsa.key")));
        ASSERT_TRUE(make_ec_key(dir->file("ec.key")));
        ASSERT_TRUE(write_text_file(dir->file("garbage.key"), "this is not a key\n"));
        ASSERT_TRUE(run_command({"openssl", "genpkey", "-algorithm", "EC", "-pkeyopt",
                                 "ec_paramgen_curve:P-256", "-aes-128-cbc", "-pass", "pass:secret",
                                 "-out", dir->file("encrypted.key")}));
    }
    static void TearDownTestSuite() { dir.reset(); }

    // The public key as the openssl tool derives it from the key file.
    static std::string tool_public_pem(const std::string& key_path) {
        std::string pem;
        EXPECT_TRUE(run_command({"openssl", "pkey", "-in", key_path, "-pubout"}, &pem));
        return pem;
    }

    static std::unique_ptr<TempDir> dir;
};

std::unique_ptr<TempDir> KeyTest::dir;

TEST_F(KeyTest, PublicPemMatchesToolForRsaAndEc) {
    for (const char* name : {"rsa.key", "ec.key"}) {
        SCOPED_TRACE(name);
        Key key;
        ASSERT_TRUE(key.load_private_pem(dir->file(name).c_str())) << key.error;
        ASSERT_TRUE(key.pkey);
        const std::string pem = key.get_public_pem();
        EXPECT_EQ(pem, tool_public_pem(dir->file(name)));
        EXPECT_EQ(pem.rfind("-----BEGIN PUBLIC KEY-----\n", 0), 0u);
        EXPECT_TRUE(key.error.empty());
    }
}

TEST_F(KeyTest, MissingFileLeavesUnclosedQuoteAndNoKey) {
    const std::string path = dir->file("missing.key");
    Key key;
    EXPECT_FALSE(key.load_private_pem(path.c_str()));
    EXPECT_EQ(key.error, "failed to open private key file '" + path + ": " + g_strerror(ENOENT));
    EXPECT_FALSE(key.pkey);
}

TEST_F(KeyTest, NonPemAndEncryptedFilesGiveBareOpenSSLError) {
    for (const char* name : {"garbage.key", "encrypted.key"}) {
        SCOPED_TRACE(name);
        Key key;
        EXPECT_FALSE(key.load_private_pem(dir->file(name).c_str()));
        // OpenSSL's own text, with no message of ours around it
        EXPECT_EQ(key.error.rfind("error:", 0), 0u) << key.error;
        EXPECT_FALSE(key.pkey);
    }
}

TEST_F(KeyTest, StaleOpenSSLErrorsAreNotReported) {
    // A failure left on the queue by someone else must not stand for ours.
    ERR_raise(ERR_LIB_X509, X509_R_KEY_VALUES_MISMATCH);
    Key key;
    EXPECT_FALSE(key.load_private_pem(dir->file("garbage.key").c_str()));
    EXPECT_EQ(key.error.find("key values mismatch"), std::string::npos) << key.error;
    ERR_clear_error();
}

TEST_F(KeyTest, FailedLoadDiscardsPreviousKey) {
    Key key;
    ASSERT_TRUE(key.load_private_pem(dir->file("rsa.key").c_str()));
    EXPECT_FALSE(key.load_private_pem(dir->file("garbage.key").c_str()));
    EXPECT_FALSE(key.pkey);
    EXPECT_EQ(key.get_public_pem(), "");
    EXPECT_EQ(key.error, "no key loaded");

    // a later success replaces nothing in the error text
    ASSERT_TRUE(key.load_private_pem(dir->file("ec.key").c_str()));
    EXPECT_EQ(key.error, "no key loaded");
    EXPECT_EQ(key.get_public_pem(), tool_public_pem(dir->file("ec.key")));
}

TEST_F(KeyTest, SecondLoadReplacesKey) {
    Key key;
    ASSERT_TRUE(key.load_private_pem(dir->file("rsa.key").c_str()));
    ASSERT_TRUE(key.load_private_pem(dir->file("ec.key").c_str()));
    EXPECT_EQ(key.get_public_pem(), tool_public_pem(dir->file("ec.key")));
}

TEST_F(KeyTest, EmptyKeyHasNoPublicPem) {
    Key key;
    EXPECT_EQ(key.get_public_pem(), "");
    EXPECT_EQ(key.error, "no key loaded");

    Key cleared;
    ASSERT_TRUE(cleared.load_private_pem(dir->file("rsa.key").c_str()));
    cleared.clear();
    EXPECT_FALSE(cleared.pkey);
    EXPECT_EQ(cleared.get_public_pem(), "");
    EXPECT_EQ(cleared.error, "no key loaded");
}

TEST(OpenSSLUtils, ErrorTakesOldestAndLeavesTheRest) {
    ERR_clear_error();
    ERR_raise(ERR_LIB_PEM, PEM_R_NO_START_LINE);
    ERR_raise(ERR_LIB_X509, X509_R_KEY_VALUES_MISMATCH);

    const std::string first = get_openssl_error();
    EXPECT_EQ(first.rfind("error:", 0), 0u);
    EXPECT_NE(first.find("no start line"), std::string::npos) << first;
    EXPECT_NE(get_openssl_error().find("key values mismatch"), std::string::npos);
    EXPECT_EQ(ERR_peek_error(), 0u);
}

TEST(OpenSSLUtils, EmptyQueueGivesTextOfCodeZero) {
    ERR_clear_error();
    char expected[256];
    ERR_error_string_n(0, expected, sizeof(expected));
    EXPECT_EQ(get_openssl_error(), expected);
    EXPECT_NE(get_openssl_error(), "");
}

TEST(OpenSSLUtils, DefaultCertFileIsInOpenSSLDir) {
    std::string out;
    ASSERT_TRUE(run_command({"openssl", "version", "-d"}, &out));
    // OPENSSLDIR: "/usr/lib/ssl"
    const size_t open = out.find('"');
    const size_t close = out.rfind('"');
    ASSERT_LT(open, close);
    EXPECT_EQ(get_openssl_default_cert_file(),
              out.substr(open + 1, close - open - 1) + "/cert.pem");
}

}  // namespace
