#include "Key.h"

#include <fcntl.h>
#include <unistd.h>

#include <glib.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <cerrno>

#include "ScopedFd.h"

namespace {

// A daemon has no one to ask for a pass phrase, so an encrypted key must fail rather
// than prompt on whatever terminal the process happens to have.
int refuse_pass_phrase(char*, int, int, void*) {
    return -1;
}

}  // namespace

bool Key::load_private_pem(const char* path) {
    g_return_val_if_fail(path != nullptr, false);

    clear();
    const ScopedFd fd(open(path, O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) {
        // The unclosed quote is the established wording of this message.
        error = std::string("failed to open private key file '") + path + ": " + g_strerror(errno);
        return false;
    }

    ERR_clear_error();
    // The descriptor stays ours: the BIO must not close it.
    const OpenSSLPtr<BIO> bio(BIO_new(BIO_s_fd()));
    if (!bio) {
        error = get_openssl_error();
        return false;
    }
    BIO_set_fd(bio.get(), fd.get(), BIO_NOCLOSE);
    pkey.reset(PEM_read_bio_PrivateKey(bio.get(), nullptr, refuse_pass_phrase, nullptr));
    if (!pkey) {
        error = get_openssl_error();
        return false;
    }
    return true;
}

std::string Key::get_public_pem() {
    if (!pkey) {
        error = "no key loaded";
        return {};
    }
    return write_pem_text([this](BIO* bio) { return PEM_write_bio_PUBKEY(bio, pkey.get()); },
                          error);
}

void Key::clear() {
    pkey.reset();
}
