// What the TPM key code reads from the TPM: the public area and names it reports for the
// key at the persistent handle, unmarshalled as the TSS library hands them over.
#include <tss2/tss2_mu.h>

#include "FuzzSupport.h"
#include "TPM2.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    size_t offset = 0;
    TPMT_PUBLIC pub = {};
    TPM2B_NAME name = {}, qualified = {};
    if (Tss2_MU_TPMT_PUBLIC_Unmarshal(data, size, &offset, &pub) == TSS2_RC_SUCCESS &&
        Tss2_MU_TPM2B_NAME_Unmarshal(data, size, &offset, &name) == TSS2_RC_SUCCESS &&
        Tss2_MU_TPM2B_NAME_Unmarshal(data, size, &offset, &qualified) == TSS2_RC_SUCCESS)
        TPM2::check_auth_key_pub(pub, name, qualified);
    return 0;
}
