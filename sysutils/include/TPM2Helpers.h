#pragma once

#include <glib.h>
#include <tss2/tss2_esys.h>

#include <utility>

#include "GLibPtr.h"

// Whether `rc` is the TPM's "value is out of range or is not correct for the context"
// (TPM2_RC_VALUE, 0x84). That is a format-one code: the TPM may add the number of the
// parameter, handle or session it blames (bits 8 to 11, bit 6 set for a parameter), so it
// also arrives as 0x1C4 for the first parameter. Those bits are masked before comparing;
// codes of other layers (ESYS, SYS, TCTI) never match.
inline bool tpm2_rc_is_value_error(TSS2_RC rc) {
    constexpr TSS2_RC FMT1_CODE_MASK = TPM2_RC_FMT1 | 0x3F;  // format bit and error number
    return (rc & TSS2_RC_LAYER_MASK) == TSS2_TPM_RC_LAYER && (rc & TPM2_RC_FMT1) != 0 &&
           (rc & FMT1_CODE_MASK) == TPM2_RC_VALUE;
}

// Scoped holder of one ESYS object handle of a context. With `flush` the handle is a
// transient object of this session and leaving the scope flushes it from the TPM; without,
// it is a handle to an object that outlives the session (persistent, hierarchy) and only
// the ESYS metadata is closed. release() hands the handle to another owner.
template <bool flush>
class ESysResource {
  public:
    explicit ESysResource(ESYS_CONTEXT* ctx, ESYS_TR handle = ESYS_TR_NONE)
        : ctx(ctx), handle(handle) {}
    ~ESysResource() { reset(); }
    ESysResource(const ESysResource&) = delete;
    ESysResource& operator=(const ESysResource&) = delete;

    ESYS_TR get() const { return handle; }
    // For ESYS calls that hand out a new handle; anything held is dropped first.
    ESYS_TR* out() {
        reset();
        return &handle;
    }
    ESYS_TR release() { return std::exchange(handle, ESYS_TR_NONE); }

    void reset() {
        if (handle == ESYS_TR_NONE)
            return;
        g_assert(ctx);
        const ESYS_TR held = handle;
        const TSS2_RC rc = flush ? Esys_FlushContext(ctx, handle) : Esys_TR_Close(ctx, &handle);
        if (rc == TSS2_RC_SUCCESS)
            g_debug("TPM2 ctx %p %s resource 0x%x", static_cast<void*>(ctx),
                    flush ? "flushed" : "closed", held);
        else
            g_critical("TPM2 ctx %p failed %s of resource 0x%x: 0x%x", static_cast<void*>(ctx),
                       flush ? "flush" : "close", held, rc);
        handle = ESYS_TR_NONE;
    }

  private:
    ESYS_CONTEXT* ctx;
    ESYS_TR handle;
};

// Owner of a structure that an ESYS call allocated for its caller.
template <typename T>
using ESysPtr = CPtr<T, Esys_Free>;

// Adapts an ESysPtr to an ESYS output parameter: the structure is adopted as soon as the
// call's full expression ends, so that no path can leak it:
//     Esys_ReadPublic(..., esys_out(pub), esys_out(name), esys_out(qualified));
template <typename T>
class ESysOut {
  public:
    explicit ESysOut(ESysPtr<T>& owner) : owner(owner) {}
    ~ESysOut() { owner.reset(raw); }
    ESysOut(const ESysOut&) = delete;
    ESysOut& operator=(const ESysOut&) = delete;
    operator T**() { return &raw; }

  private:
    ESysPtr<T>& owner;
    T* raw = nullptr;
};

template <typename T>
ESysOut<T> esys_out(ESysPtr<T>& owner) {
    return ESysOut<T>(owner);
}
