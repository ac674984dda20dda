#include <gtest/gtest.h>

#include <glib.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <cerrno>
#include <memory>

#include "Certificate.h"
#include "CertificateStore.h"
#include "CryptoTestUtils.h"
#include "Key.h"

namespace {

const char kMismatch[] = "cert and private key mismatch: ";

bool starts_with(const std::string& text, const std::string& prefix) {
    return text.rfind(prefix, 0) == 0;
}

std::string common_name(const Certificate& cert) {
    char buf[256] = "";
    X509_NAME_get_text_by_NID(X509_get_subject_name(cert.cert.get()), NID_commonName, buf,
                              sizeof(buf));
    return buf;
}

class CertificateTest : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        dir = std::make_unique<TempDir>();
        ASSERT_FALSE(dir->path.empty());
        ASSERT_TRUE(make_rsa_key(dir->file("device.key")));
        ASSERT_TRUE(make_rsa_key(dir->file("other.key")));
        ASSERT_TRUE(make_ec_key(dir->file("ec.key")));
        ASSERT_TRUE(make_certificate(dir->file("device.key"), dir->file("device.pem"), "device"));
        ASSERT_TRUE(make_certificate(dir->file("other.key"), dir->file("other.pem"), "other"));
        ASSERT_TRUE(make_certificate(dir->file("ec.key"), dir->file("ec.pem"), "ec"));
        ASSERT_TRUE(
            write_text_file(dir->file("bundle.pem"), text("device.pem") + text("other.pem")));
        ASSERT_TRUE(write_text_file(dir->file("garbage.pem"), "no certificates here\n"));
    }
    static void TearDownTestSuite() { dir.reset(); }

    static std::string path(const char* name) { return dir->file(name); }
    static std::string text(const char* name) { return read_text_file(dir->file(name)); }

    static std::unique_ptr<TempDir> dir;
};

std::unique_ptr<TempDir> CertificateTest::dir;

TEST_F(CertificateTest, MatchingKeyByObjectAndByPath) {
    Certificate cert;
    ASSERT_TRUE(cert.load_pem(text("device.pem"))) << cert.error;
    Key key;
    ASSERT_TRUE(key.load_private_pem(path("device.key").c_str()));
    EXPECT_TRUE(cert.check_private_key(key)) << cert.error;
    EXPECT_TRUE(cert.check_private_key(path("device.key").c_str())) << cert.error;
    EXPECT_TRUE(cert.error.empty());

    Certificate ec;
    ASSERT_TRUE(ec.load_pem_file(path("ec.pem").c_str())) << ec.error;
    EXPECT_TRUE(ec.check_private_key(path("ec.key").c_str())) << ec.error;
}

TEST_F(CertificateTest, MismatchingKeyGivesPrefixedOpenSSLReason) {
    struct Case {
        const char* cert;
        const char* key;
    };
    // same key type with other values, and a key of another type
    for (const Case& c : {Case{"other.pem", "device.key"}, Case{"ec.pem", "device.key"},
                          Case{"device.pem", "ec.key"}}) {
        SCOPED_TRACE(std::string(c.cert) + " with " + c.key);
        Certificate cert;
        ASSERT_TRUE(cert.load_pem_file(path(c.cert).c_str())) << cert.error;
        EXPECT_FALSE(cert.check_private_key(path(c.key).c_str()));
        EXPECT_TRUE(starts_with(cert.error, kMismatch)) << cert.error;
        EXPECT_TRUE(starts_with(cert.error.substr(sizeof(kMismatch) - 1), "error:")) << cert.error;
    }
}

TEST_F(CertificateTest, CheckWithoutCertificateOrKey) {
    Certificate empty;
    EXPECT_FALSE(empty.check_private_key(path("device.key").c_str()));
    EXPECT_EQ(empty.error, "no certificate loaded");

    Certificate cert;
    ASSERT_TRUE(cert.load_pem_file(path("device.pem").c_str()));
    const std::string missing = path("missing.key");
    EXPECT_FALSE(cert.check_private_key(missing.c_str()));
    EXPECT_EQ(cert.error,
              "failed to open private key file '" + missing + ": " + g_strerror(ENOENT));
    EXPECT_FALSE(cert.check_private_key(path("garbage.pem").c_str()));
    EXPECT_TRUE(starts_with(cert.error, "error:")) << cert.error;

    Key no_key;
    EXPECT_FALSE(cert.check_private_key(no_key));
    EXPECT_TRUE(starts_with(cert.error, kMismatch)) << cert.error;
}

TEST_F(CertificateTest, TrailingDataIsIgnored) {
    for (const std::string& tail : {text("other.pem"), std::string("trailing junk\n")}) {
        Certificate cert;
        ASSERT_TRUE(cert.load_pem(text("device.pem") + tail)) << cert.error;
        EXPECT_EQ(common_name(cert), "device");
        EXPECT_TRUE(cert.check_private_key(path("device.key").c_str())) << cert.error;
    }
    Certificate from_file;
    ASSERT_TRUE(from_file.load_pem_file(path("bundle.pem").c_str())) << from_file.error;
    EXPECT_EQ(common_name(from_file), "device");
}

TEST_F(CertificateTest, BadTextLeavesNoCertificate) {
    const std::string pem = text("device.pem");
    // garbage, nothing, and a certificate cut short
    for (const std::string& bad :
         {std::string("not a certificate"), std::string(), pem.substr(0, pem.size() / 2)}) {
        Certificate cert;
        ASSERT_TRUE(cert.load_pem(pem));
        EXPECT_FALSE(cert.load_pem(bad));
        EXPECT_FALSE(cert.cert);
        EXPECT_TRUE(starts_with(cert.error, "error:")) << cert.error;
        EXPECT_FALSE(cert.check_private_key(path("device.key").c_str()));
        EXPECT_EQ(cert.error, "no certificate loaded");
    }
}

TEST_F(CertificateTest, BadFileLeavesNoCertificate) {
    Certificate cert;
    ASSERT_TRUE(cert.load_pem_file(path("device.pem").c_str()));
    const std::string missing = path("missing.pem");
    EXPECT_FALSE(cert.load_pem_file(missing.c_str()));
    EXPECT_EQ(cert.error,
              "failed to open certificate file '" + missing + ": " + g_strerror(ENOENT));
    EXPECT_FALSE(cert.cert);

    ASSERT_TRUE(cert.load_pem_file(path("device.pem").c_str()));
    EXPECT_FALSE(cert.load_pem_file(path("garbage.pem").c_str()));
    EXPECT_TRUE(starts_with(cert.error, "error:")) << cert.error;
    EXPECT_FALSE(cert.cert);

    // a later success leaves the last error text in place
    ASSERT_TRUE(cert.load_pem_file(path("device.pem").c_str()));
    EXPECT_TRUE(starts_with(cert.error, "error:"));
    cert.clear();
    EXPECT_FALSE(cert.cert);
}

// Whether the store trusts a self-signed certificate.
bool store_trusts(const CertificateStore& store, const Certificate& cert) {
    const std::unique_ptr<X509_STORE_CTX, decltype(&X509_STORE_CTX_free)> ctx(X509_STORE_CTX_new(),
                                                                              X509_STORE_CTX_free);
    return ctx &&
           X509_STORE_CTX_init(ctx.get(), store.store.get(), cert.cert.get(), nullptr) == 1 &&
           X509_verify_cert(ctx.get()) == 1;
}

TEST_F(CertificateTest, StoreLoadsEveryCertificateOfBundle) {
    CertificateStore store;
    ASSERT_TRUE(store.load_pem_file(path("bundle.pem").c_str())) << store.error;
    ASSERT_TRUE(store.store);
    EXPECT_EQ(sk_X509_OBJECT_num(X509_STORE_get0_objects(store.store.get())), 2);

    Certificate device, other, ec;
    ASSERT_TRUE(device.load_pem_file(path("device.pem").c_str()));
    ASSERT_TRUE(other.load_pem_file(path("other.pem").c_str()));
    ASSERT_TRUE(ec.load_pem_file(path("ec.pem").c_str()));
    EXPECT_TRUE(store_trusts(store, device));
    EXPECT_TRUE(store_trusts(store, other));
    EXPECT_FALSE(store_trusts(store, ec));

    // a reload starts from a fresh store
    ASSERT_TRUE(store.load_pem_file(path("ec.pem").c_str())) << store.error;
    EXPECT_EQ(sk_X509_OBJECT_num(X509_STORE_get0_objects(store.store.get())), 1);
    EXPECT_FALSE(store_trusts(store, device));
    EXPECT_TRUE(store_trusts(store, ec));

    store.clear();
    EXPECT_FALSE(store.store);
}

TEST_F(CertificateTest, StoreBadFileKeepsEmptyStore) {
    for (const char* name : {"garbage.pem", "missing.pem"}) {
        SCOPED_TRACE(name);
        CertificateStore store;
        ASSERT_TRUE(store.load_pem_file(path("bundle.pem").c_str()));
        EXPECT_FALSE(store.load_pem_file(path(name).c_str()));
        EXPECT_TRUE(starts_with(store.error, "failed to load CA certificates file: error:"))
            << store.error;
        EXPECT_EQ(store.error.find(name), std::string::npos) << "the path is not in the text";
        // the fresh store is kept, without the certificates of the earlier load
        ASSERT_TRUE(store.store);
        EXPECT_EQ(sk_X509_OBJECT_num(X509_STORE_get0_objects(store.store.get())), 0);
    }
}

}  // namespace
