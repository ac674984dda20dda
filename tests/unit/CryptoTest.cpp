#include <gtest/gtest.h>

#include <glib.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "CertificateSignRequest.h"
#include "Key.h"
#include "TestSupport.h"

namespace {

// The alternative serials stay out of the subject.
const DeviceInfo kDevice{"SN 42-A",  "Model 7. Pro", "Acme, Inc.", "user-sn",
                         "board-sn", "system-sn",    "chassis-sn"};

class CryptoTest : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        dir = std::make_unique<TempDir>();
        ASSERT_TRUE(run({"openssl", "genpkey", "-algorithm", "RSA", "-pkeyopt",
                         "rsa_keygen_bits:2048", "-out", path("rsa.key")}));
        ASSERT_TRUE(run({"openssl", "genpkey", "-algorithm", "EC", "-pkeyopt",
                         "ec_paramgen_curve:P-256", "-out", path("ec.key")}));
        dir->write("garbage.key", "not a key\n");
        ASSERT_TRUE(run({"openssl", "pkey", "-in", path("ec.key"), "-aes128", "-passout",
                         "pass:secret", "-out", path("encrypted.key")}));
    }
    static void TearDownTestSuite() { dir.reset(); }

    static std::string path(const char* name) { return dir->file(name); }
    // The public key as the openssl tool derives it from the key file.
    static std::string public_pem(const char* key) {
        std::string pem;
        EXPECT_TRUE(run({"openssl", "pkey", "-in", path(key), "-pubout"}, &pem)) << pem;
        return pem;
    }

    static std::unique_ptr<TempDir> dir;
};

std::unique_ptr<TempDir> CryptoTest::dir;

TEST_F(CryptoTest, ToolVerifiesRequestForRsaAndEcKeys) {
    for (const char* key : {"rsa.key", "ec.key"}) {
        SCOPED_TRACE(key);
        CertificateSignRequest csr;
        ASSERT_TRUE(csr.create(path(key).c_str(), kDevice)) << csr.error;
        const std::string req = dir->write("req.pem", csr.get_pem());
        std::string text;
        ASSERT_TRUE(
            run({"openssl", "req", "-in", req, "-verify", "-noout", "-text", "-pubkey"}, &text))
            << text;
        const bool rsa = key[0] == 'r';
        // entries in this order, each its own RDN (a shared one prints "+"), values whole
        for (const std::string& part :
             {std::string("verify OK"), std::string("Version: 1 (0x0)"),
              std::string("Subject: O = \"Acme, Inc.\", OU = ZelPlayer, dnQualifier = Model 7. "
                          "Pro, CN = SN 42-A, serialNumber = SN 42-A\n"),
              std::string("Signature Algorithm: ") +
                  (rsa ? "sha256WithRSAEncryption" : "ecdsa-with-SHA256"),
              public_pem(key)})
            EXPECT_NE(text.find(part), std::string::npos) << part << "\nnot in:\n" << text;
    }
}

TEST_F(CryptoTest, KeyPublicPemAndFailedLoads) {
    Key key;
    for (const char* name : {"rsa.key", "ec.key"}) {
        ASSERT_TRUE(key.load_private_pem(path(name).c_str())) << key.error;
        EXPECT_EQ(key.get_public_pem(), public_pem(name));
    }

    // a failed load discards the key held before
    ASSERT_TRUE(key.load_private_pem(path("ec.key").c_str()));
    EXPECT_FALSE(key.load_private_pem(path("garbage.key").c_str()));
    EXPECT_EQ(key.error.rfind("error:", 0), 0u) << key.error;
    EXPECT_FALSE(key.pkey);
    EXPECT_EQ(key.get_public_pem(), "");
    // nobody is there to give a pass phrase: fail rather than prompt
    EXPECT_FALSE(key.load_private_pem(path("encrypted.key").c_str()));
}

}  // namespace
