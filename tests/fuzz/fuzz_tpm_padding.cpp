// What the TPM key code reads from outside without a TPM: the padding names of a
// "tpm2-authkey-csr" response, and the public area and names the TPM reports for the key
// at the persistent handle, unmarshalled as the TSS library hands them over.
#include <tss2/tss2_mu.h>

#include <cstring>
#include <string>

#include "FuzzSupport.h"
#include "TPM2.h"

namespace {

void check_padding(const uint8_t* data, size_t size) {
    // "padding" NUL "paddingHash"
    const char* text = reinterpret_cast<const char*>(data);
    const size_t split = strnlen(text, size);
    const std::string padding(text, split);
    const std::string hash =
        split < size ? std::string(text + split + 1, size - split - 1) : std::string();
    const TPM2::Padding expected = padding == "rsaes"                      ? TPM2::RSAES
                                   : padding == "oaep" && hash == "sha1"   ? TPM2::OAEP_SHA1
                                   : padding == "oaep" && hash == "sha256" ? TPM2::OAEP_SHA256
                                                                           : TPM2::UNKNOWN_PADDING;
    if (TPM2::parse_padding(padding, hash) != expected)
        abort();
}

void check_public(const uint8_t* data, size_t size) {
    size_t offset = 0;
    TPMT_PUBLIC pub = {};
    TPM2B_NAME name = {};
    TPM2B_NAME qualified = {};
    if (Tss2_MU_TPMT_PUBLIC_Unmarshal(data, size, &offset, &pub) != TSS2_RC_SUCCESS ||
        Tss2_MU_TPM2B_NAME_Unmarshal(data, size, &offset, &name) != TSS2_RC_SUCCESS ||
        Tss2_MU_TPM2B_NAME_Unmarshal(data, size, &offset, &qualified) != TSS2_RC_SUCCESS)
        return;
    TPM2::check_auth_key_pub(pub, name, qualified);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::quiet_logging();
    return 0;
}

// The first byte picks the check.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    if (data[0] & 1)
        check_public(data + 1, size - 1);
    else
        check_padding(data + 1, size - 1);
    return 0;
}
