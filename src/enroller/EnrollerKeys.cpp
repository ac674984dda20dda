#include "Enroller.h"

#include <openssl/crypto.h>

#include "CertificateSignRequest.h"
#include "EnrollerMessages.h"
#include "GLibPtr.h"
#include "Key.h"
#include "TPM2.h"

// The key file is read once per enrollment: the public key of "/initiate", the CSR and
// the check of the delivered certificate all use that one copy. `announce` says whether
// the public key is wanted, and with it the warnings of a failed read.
void Enroller::load_device_key(bool announce) {
    auto key = std::make_unique<Key>();
    if (!key->load_private_pem(info->key_path.c_str())) {
        if (announce)
            g_warning("failed to read key from '%s': %s", info->key_path.c_str(),
                      key->error.c_str());
        deviceKey.reset();
        return;
    }
    deviceKey = std::move(key);
    if (!announce)
        return;
    std::string pem = deviceKey->get_public_pem();
    if (pem.empty()) {
        g_warning("failed to get public key PEM: %s", deviceKey->error.c_str());
        return;
    }
    publicKeyPem = std::move(pem);
}

void Enroller::read_pubkey() {
    load_device_key(true);
}

bool Enroller::get_csr() {
    CertificateSignRequest csr;
    // Without a loaded key the request reads the file itself and names it in its error.
    const bool created = deviceKey ? csr.create(*deviceKey, info->device)
                                   : csr.create(info->key_path.c_str(), info->device);
    if (!created) {
        g_warning("failed to create CSR: %s", csr.error.c_str());
        return false;
    }
    std::string pem = csr.get_pem();
    if (pem.empty()) {
        g_warning("failed to get CSR PEM: %s", csr.error.c_str());
        return false;
    }
    csrPem = std::move(pem);
    return true;
}

bool Enroller::open_tpm2() {
    if (!tpm2)
        tpm2 = std::make_unique<TPM2>();
    return tpm2->is_open() || tpm2->open();
}

// The TPM decrypts the server's ephemeral key; keying an HMAC of the CSR and the server's
// nonce with it binds the CSR to this TPM.
std::vector<unsigned char> Enroller::tpm2_auth_key_csr_hmac(const HMACRequest* req,
                                                            const char* status) {
    std::vector<unsigned char> res;
    if (!req) {
        g_warning("missing hmacRequest in %s enroll response", status);
        return res;
    }
    if (csrPem.empty()) {
        g_return_if_fail_warning(G_LOG_DOMAIN, G_STRFUNC, "! csr.empty()");
        return res;
    }
    const RSAEncrpytedKey& crypted = req->rsaEncryptedKey;
    const TPM2::Padding padding = TPM2::parse_padding(crypted.padding, crypted.paddingHash);
    if (padding == TPM2::UNKNOWN_PADDING) {
        g_warning("unknown padding '%s' or paddingHash '%s' in %s enroll response",
                  crypted.padding.c_str(), crypted.paddingHash.c_str(), status);
        return res;
    }
    std::vector<unsigned char> key;
    if (!tpm2->auth_decrypt(crypted.crypted, padding, key)) {
        g_warning("failed decrypting ephemeral key in %s enroll response", status);
        return res;
    }
    const GHmacPtr hmac(g_hmac_new(G_CHECKSUM_SHA256, key.data(), key.size()));
    OPENSSL_cleanse(key.data(), key.size());
    if (!hmac) {
        g_critical("glib does not support SHA-256 HMAC");
        return res;
    }
    // the terminating NUL is part of the authenticated data, the server hashes it too
    g_hmac_update(hmac.get(), reinterpret_cast<const guchar*>(csrPem.c_str()), csrPem.size() + 1);
    g_hmac_update(hmac.get(), req->nonce.data(), req->nonce.size());
    res.resize(g_checksum_type_get_length(G_CHECKSUM_SHA256));
    gsize len = res.size();
    g_hmac_get_digest(hmac.get(), res.data(), &len);
    g_assert(len == res.size());
    return res;
}
