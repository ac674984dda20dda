#include "Certificate.h"

#include <glib.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cerrno>
#include <climits>
#include <cstdio>

namespace {

struct FileCloser {
    void operator()(FILE* file) const { fclose(file); }
};

}  // namespace

bool Certificate::load_pem(const std::string& pem) {
    ERR_clear_error();
    clear();

    const OpenSSLPtr<BIO> bio(BIO_new(BIO_s_mem()));
    // A short write would parse a truncated text, so only a complete copy is read.
    if (bio && pem.size() <= INT_MAX &&
        BIO_write(bio.get(), pem.data(), static_cast<int>(pem.size())) ==
            static_cast<int>(pem.size()))
        cert.reset(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    if (!cert) {
        error = get_openssl_error();
        return false;
    }
    return true;
}

bool Certificate::load_pem_file(const char* path) {
    g_return_val_if_fail(path != nullptr, false);

    ERR_clear_error();
    clear();

    const std::unique_ptr<FILE, FileCloser> file(fopen(path, "rb"));
    if (!file) {
        // The unclosed quote matches the private key's message.
        error = std::string("failed to open certificate file '") + path + ": " + g_strerror(errno);
        return false;
    }
    cert.reset(PEM_read_X509(file.get(), nullptr, nullptr, nullptr));
    if (!cert) {
        error = get_openssl_error();
        return false;
    }
    return true;
}

bool Certificate::check_private_key(const Key& key) {
    if (!cert) {
        error = "no certificate loaded";
        return false;
    }

    ERR_clear_error();
    if (X509_check_private_key(cert.get(), key.pkey.get()) != 1) {
        error = "cert and private key mismatch: " + get_openssl_error();
        return false;
    }
    return true;
}

bool Certificate::check_private_key(const char* key_path) {
    Key key;
    if (!key.load_private_pem(key_path)) {
        error = key.error;
        return false;
    }
    return check_private_key(key);
}

void Certificate::clear() {
    cert.reset();
}
