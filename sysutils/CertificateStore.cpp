#include "CertificateStore.h"

#include <glib.h>
#include <openssl/err.h>
#include <openssl/x509_vfy.h>

bool CertificateStore::load_pem_file(const char* path) {
    g_return_val_if_fail(path != nullptr, false);

    ERR_clear_error();
    clear();

    store.reset(X509_STORE_new());
    if (!store) {
        error = get_openssl_error();
        return false;
    }
    if (X509_STORE_load_locations(store.get(), path, nullptr) != 1) {
        error = "failed to load CA certificates file: " + get_openssl_error();
        return false;
    }
    return true;
}

void CertificateStore::clear() {
    store.reset();
}
