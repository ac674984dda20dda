#include "OpenSSLUtils.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

std::string get_openssl_error() {
    char buf[256];
    ERR_error_string_n(ERR_get_error(), buf, sizeof(buf));
    return buf;
}

std::string get_openssl_default_cert_file() {
    const char* const path = X509_get_default_cert_file();
    return path ? path : "";
}

std::string write_pem_text(const std::function<int(BIO*)>& write, std::string& error) {
    ERR_clear_error();
    const OpenSSLPtr<BIO> bio(BIO_new(BIO_s_mem()));
    char* data = nullptr;
    const long length = bio && write(bio.get()) == 1 ? BIO_get_mem_data(bio.get(), &data) : 0;
    if (length <= 0 || !data) {
        error = get_openssl_error();
        return {};
    }
    return std::string(data, static_cast<size_t>(length));
}

void OpenSSLDeleter::operator()(BIO* bio) const {
    BIO_free_all(bio);
}

void OpenSSLDeleter::operator()(EVP_PKEY* pkey) const {
    EVP_PKEY_free(pkey);
}

void OpenSSLDeleter::operator()(X509* cert) const {
    X509_free(cert);
}

void OpenSSLDeleter::operator()(X509_STORE* store) const {
    X509_STORE_free(store);
}

void OpenSSLDeleter::operator()(X509_REQ* req) const {
    X509_REQ_free(req);
}
