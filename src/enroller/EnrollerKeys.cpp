#include "Enroller.h"

#include "CertificateSignRequest.h"
#include "Key.h"

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
    g_warning("TPM access is not supported by this build");
    return false;
}
