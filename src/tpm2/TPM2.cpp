#include "TPM2.h"

#include <glib.h>
#include <tss2/tss2_rc.h>

#include <cstring>

#include "GLibPtr.h"
#include "TPM2Helpers.h"

namespace {

// Response codes the key handling tells apart.
constexpr TSS2_RC RC_HANDLE_1 = 0x18B;          // TPM: no object at the handle
constexpr TSS2_RC RC_ESYS_BAD_VALUE = 0x7000B;  // ESYS: no object at the handle
constexpr TSS2_RC RC_NV_DEFINED = 0x14C;        // TPM: the persistent handle is taken

TPM2B_PUBLIC make_authkey_tmpl() {
    TPM2B_PUBLIC tmpl{};
    TPMT_PUBLIC& pub = tmpl.publicArea;
    pub.type = TPM2_ALG_RSA;
    pub.nameAlg = TPM2_ALG_SHA256;
    pub.objectAttributes = TPMA_OBJECT_FIXEDTPM | TPMA_OBJECT_FIXEDPARENT |
                           TPMA_OBJECT_SENSITIVEDATAORIGIN | TPMA_OBJECT_USERWITHAUTH |
                           TPMA_OBJECT_NODA | TPMA_OBJECT_DECRYPT | TPMA_OBJECT_SIGN_ENCRYPT;
    pub.parameters.rsaDetail.symmetric.algorithm = TPM2_ALG_NULL;
    pub.parameters.rsaDetail.scheme.scheme = TPM2_ALG_NULL;
    pub.parameters.rsaDetail.keyBits = 2048;
    pub.parameters.rsaDetail.exponent = 0;
    return tmpl;
}

}  // namespace

const TPM2B_PUBLIC TPM2::authkey_tmpl = make_authkey_tmpl();

TPM2::~TPM2() {
    close();
}

bool TPM2::open() {
    if (ctx) {
        g_return_if_fail_warning(G_LOG_DOMAIN, G_STRFUNC, "! ctx");
        return false;
    }
    TSS2_ABI_VERSION abi{1, 2, 1, 108};
    const TSS2_RC rc = Esys_Initialize(&ctx, nullptr, &abi);
    if (rc != TSS2_RC_SUCCESS) {
        g_warning("failed to open TPM2: %s (0x%x)", Tss2_RC_Decode(rc), rc);
        ctx = nullptr;
        return false;
    }
    g_debug("opened TPM2");
    if (load_auth_key() || create_auth_key())
        return true;
    close();
    return false;
}

void TPM2::close() {
    if (!ctx)
        return;
    g_debug("closing TPM2");
    unload_auth_key();
    Esys_Finalize(&ctx);
    g_assert(ctx == nullptr);
}

bool TPM2::load_auth_key() {
    g_return_val_if_fail(ctx, false);
    if (authkey != ESYS_TR_NONE)
        return true;

    ESysResource<false> key(ctx);
    TSS2_RC rc = Esys_TR_FromTPMPublic(ctx, AUTHKEY_HANDLE, ESYS_TR_NONE, ESYS_TR_NONE,
                                       ESYS_TR_NONE, key.out());
    if (rc != TSS2_RC_SUCCESS) {
        if (rc == RC_HANDLE_1 || rc == RC_ESYS_BAD_VALUE)
            g_message("TPM2 RSA authentication key persistent handle not present");
        else
            g_warning("failed to load TPM2 RSA authentication key: %s (0x%x)", Tss2_RC_Decode(rc),
                      rc);
        return false;
    }
    g_debug("loaded TPM2 RSA auth key from persistent handle");

    ESysPtr<TPM2B_PUBLIC> pub;
    ESysPtr<TPM2B_NAME> name;
    ESysPtr<TPM2B_NAME> qualified;
    rc = Esys_ReadPublic(ctx, key.get(), ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE, esys_out(pub),
                         esys_out(name), esys_out(qualified));
    if (rc != TSS2_RC_SUCCESS) {
        g_warning("failed to read TPM2 RSA authentication key public area: %s (0x%x)",
                  Tss2_RC_Decode(rc), rc);
        return false;
    }
    if (!check_auth_key_pub(pub->publicArea, *name, *qualified)) {
        g_warning(
            "TPM2 RSA authentication key from persistent handle does not match "
            "requirements, ignoring");
        return false;
    }
    authkey = key.release();
    persistent = true;
    return true;
}

bool TPM2::create_auth_key() {
    g_return_val_if_fail(ctx, false);
    unload_auth_key();
    g_message("creating TPM2 RSA auth key");

    const TPM2B_SENSITIVE_CREATE sensitive{};
    const TPM2B_DATA outside{};
    const TPML_PCR_SELECTION pcrs{};
    ESysResource<true> primary(ctx);
    TSS2_RC rc = Esys_CreatePrimary(ctx, ESYS_TR_RH_ENDORSEMENT, ESYS_TR_PASSWORD, ESYS_TR_NONE,
                                    ESYS_TR_NONE, &sensitive, &authkey_tmpl, &outside, &pcrs,
                                    primary.out(), nullptr, nullptr, nullptr, nullptr);
    if (rc != TSS2_RC_SUCCESS) {
        g_warning("failed creating TPM2 RSA auth key: %s (0x%x)", Tss2_RC_Decode(rc), rc);
        return false;
    }
    g_message("TPM2 RSA auth key created");

    persistent = true;
    rc = Esys_EvictControl(ctx, ESYS_TR_RH_OWNER, primary.get(), ESYS_TR_PASSWORD, ESYS_TR_NONE,
                           ESYS_TR_NONE, AUTHKEY_HANDLE, &authkey);
    if (rc == TSS2_RC_SUCCESS) {
        g_message("TPM2 RSA auth key saved to persistent handle 0x%x", AUTHKEY_HANDLE);
        return true;  // the transient copy goes with `primary`
    }
    if (rc == RC_NV_DEFINED)
        g_message("could not save TPM2 RSA auth key in persistent handle, handle already exists");
    else
        g_warning("failed saving TPM2 RSA auth key in persistent handle: %s (0x%x)",
                  Tss2_RC_Decode(rc), rc);
    // Enrolling with a key of this session beats not enrolling at all.
    unload_auth_key();
    persistent = false;
    authkey = primary.release();
    return true;
}

void TPM2::unload_auth_key() {
    g_return_if_fail(ctx);
    if (authkey == ESYS_TR_NONE)
        return;
    if (persistent) {
        Esys_TR_Close(ctx, &authkey);
        g_assert(authkey == ESYS_TR_NONE);
    } else {
        ESysResource<true>(ctx, authkey).reset();
        authkey = ESYS_TR_NONE;
    }
}

bool TPM2::check_auth_key_pub(const TPMT_PUBLIC& pub, const TPM2B_NAME& name,
                              const TPM2B_NAME& qualified_name) {
    const TPMS_RSA_PARMS& rsa = pub.parameters.rsaDetail;
    if (pub.type != TPM2_ALG_RSA || pub.nameAlg != TPM2_ALG_SHA256 ||
        pub.objectAttributes != authkey_tmpl.publicArea.objectAttributes ||
        pub.authPolicy.size != 0 || rsa.symmetric.algorithm != TPM2_ALG_NULL ||
        rsa.scheme.scheme != TPM2_ALG_NULL || rsa.keyBits != 2048 || rsa.exponent != 0)
        return false;

    // The qualified name of a primary object is the hash of its hierarchy's handle and its
    // name: it ties the key to the endorsement hierarchy.
    const GChecksumPtr checksum(g_checksum_new(G_CHECKSUM_SHA256));
    if (!checksum) {
        g_critical("glib does not support SHA-256");
        return false;
    }
    const guchar hierarchy[4] = {0x40, 0x00, 0x00, 0x0B};
    g_checksum_update(checksum.get(), hierarchy, sizeof hierarchy);
    g_checksum_update(checksum.get(), name.name, name.size);
    guchar expected[34] = {0x00, 0x0B};
    gsize len = sizeof expected - 2;
    g_checksum_get_digest(checksum.get(), expected + 2, &len);
    g_assert(len == 32);

    if (qualified_name.size != sizeof expected) {
        g_critical("unexpected TPM2 qualified name length (%hi)", qualified_name.size);
        return false;
    }
    return memcmp(qualified_name.name, expected, sizeof expected) == 0;
}

TPM2::Padding TPM2::parse_padding(const std::string& padding, const std::string& hash) {
    if (padding == "rsaes")
        return RSAES;
    if (padding == "oaep" && hash == "sha1")
        return OAEP_SHA1;
    if (padding == "oaep" && hash == "sha256")
        return OAEP_SHA256;
    return UNKNOWN_PADDING;
}

bool TPM2::auth_decrypt(const std::vector<unsigned char>& cipher, Padding padding,
                        std::vector<unsigned char>& plain) {
    g_return_val_if_fail(ctx, false);
    g_return_val_if_fail(authkey != ESYS_TR_NONE, false);
    if (cipher.size() != CIPHER_SIZE) {
        g_warning("attempted to RSA decrypt cypher text of wrong length (%zu, need %u)",
                  cipher.size(), static_cast<unsigned>(CIPHER_SIZE));
        return false;
    }

    TPMT_RSA_DECRYPT scheme{};
    switch (padding) {
        case RSAES:
            scheme.scheme = TPM2_ALG_RSAES;
            break;
        case OAEP_SHA1:
            scheme.scheme = TPM2_ALG_OAEP;
            scheme.details.oaep.hashAlg = TPM2_ALG_SHA1;
            break;
        case OAEP_SHA256:
            scheme.scheme = TPM2_ALG_OAEP;
            scheme.details.oaep.hashAlg = TPM2_ALG_SHA256;
            break;
        case UNKNOWN_PADDING:
            g_critical("passed UNKNOWN_PADDING to RSA decrypt");
            return false;
        default:
            g_return_val_if_reached(false);
    }

    TPM2B_PUBLIC_KEY_RSA in{};
    in.size = static_cast<UINT16>(cipher.size());
    memcpy(in.buffer, cipher.data(), cipher.size());
    const TPM2B_DATA label{};
    ESysPtr<TPM2B_PUBLIC_KEY_RSA> out;
    const TSS2_RC rc = Esys_RSA_Decrypt(ctx, authkey, ESYS_TR_PASSWORD, ESYS_TR_NONE, ESYS_TR_NONE,
                                        &in, &scheme, &label, esys_out(out));
    if (rc != TSS2_RC_SUCCESS) {
        g_warning("TPM2 RSA decrypt with authentication key failed: %s (0x%x)%s",
                  Tss2_RC_Decode(rc), rc,
                  tpm2_rc_is_value_error(rc) ? ", probably wrong key or invalid padding" : "");
        return false;
    }
    plain.assign(out->buffer, out->buffer + out->size);
    return true;
}
