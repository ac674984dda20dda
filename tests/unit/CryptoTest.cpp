#include <gtest/gtest.h>

#include <glib.h>

#include <string>

#include "CertificateSignRequest.h"
#include "Key.h"
#include "TestSupport.h"

// The alternative serials stay out of the subject.
const DeviceInfo kDevice{"SN 42-A",  "Model 7. Pro", "Acme, Inc.", "user-sn",
                         "board-sn", "system-sn",    "chassis-sn"};

// For an RSA and an EC key: the public key and a request the openssl tool verifies, both as it
// derives them from the key file; then failed loads.
TEST(Crypto, KeysAndRequestsAgreeWithTheTool) {
    const TempDir dir;
    const std::string rsa = dir.file("rsa.key"), ec = dir.file("ec.key");
    const std::string encrypted = dir.file("encrypted.key");
    ASSERT_TRUE(run({"openssl", "genpkey", "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048",
                     "-out", rsa}));
    ASSERT_TRUE(run({"openssl", "genpkey", "-algorithm", "EC", "-pkeyopt",
                     "ec_paramgen_curve:P-256", "-out", ec}));
    ASSERT_TRUE(run(
        {"openssl", "pkey", "-in", ec, "-aes128", "-passout", "pass:secret", "-out", encrypted}));
    Key key;
    for (const std::string& path : {rsa, ec}) {
        SCOPED_TRACE(path);
        std::string pem, text;
        ASSERT_TRUE(run({"openssl", "pkey", "-in", path, "-pubout"}, &pem)) << pem;
        ASSERT_TRUE(key.load_private_pem(path.c_str())) << key.error;
        EXPECT_EQ(key.get_public_pem(), pem);
        CertificateSignRequest csr;
        ASSERT_TRUE(csr.create(path.c_str(), kDevice)) << csr.error;
        const std::string req = dir.write("req.pem", csr.get_pem());
        ASSERT_TRUE(
            run({"openssl", "req", "-in", req, "-verify", "-noout", "-text", "-pubkey"}, &text))
            << text;
        // entries in this order, each its own RDN (a shared one prints "+"), values whole
        for (const std::string& part :
             {std::string("verify OK"), std::string("Version: 1 (0x0)"),
              std::string("Subject: O = \"Acme, Inc.\", OU = ZelPlayer, dnQualifier = Model 7. "
                          "Pro, CN = SN 42-A, serialNumber = SN 42-A\n"),
              std::string("Signature Algorithm: ") +
                  (path == rsa ? "sha256WithRSAEncryption" : "ecdsa-with-SHA256"),
              pem})
            EXPECT_NE(text.find(part), std::string::npos) << part << "\nnot in:\n" << text;
    }

    // a failed load discards the key held before
    EXPECT_FALSE(key.load_private_pem(dir.write("garbage.key", "not a key\n").c_str()));
    EXPECT_EQ(key.error.rfind("error:", 0), 0u) << key.error;
    EXPECT_FALSE(key.pkey);
    EXPECT_EQ(key.get_public_pem(), "");
    // nobody is there to give a pass phrase: fail rather than prompt
    EXPECT_FALSE(key.load_private_pem(encrypted.c_str()));
}
