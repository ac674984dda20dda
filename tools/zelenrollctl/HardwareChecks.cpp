// The hardware roots of trust the offered protocols need: the eMMC's RPMB and the TPM.
// Only reads: the RPMB's write counter and the TPM key's public area.

#include <tss2/tss2_esys.h>
#include <tss2/tss2_rc.h>
#include <unistd.h>

#include <cerrno>

#include "Checks.h"
#include "Enroller.h"
#include "RPMBDevice.h"
#include "RPMBSimulator.h"
#include "RetryPolicy.h"
#include "SysUtils.h"
#include "TPM2.h"
#include "TPM2Helpers.h"

namespace {

const char kTpmNode[] = "/dev/tpmrm0";
constexpr TSS2_RC RC_HANDLE_1 = 0x18B;          // TPM: no object at the handle
constexpr TSS2_RC RC_ESYS_BAD_VALUE = 0x7000B;  // ESYS: no object at the handle

std::string rc_text(TSS2_RC rc) {
    const GCharPtr code(g_strdup_printf(" (0x%x)", rc));
    return Tss2_RC_Decode(rc) + std::string(code.get());
}

// Owner of an ESYS context from Esys_Initialize.
struct EsysContext {
    EsysContext() = default;
    EsysContext(const EsysContext&) = delete;
    EsysContext& operator=(const EsysContext&) = delete;
    ~EsysContext() {
        if (ctx)
            Esys_Finalize(&ctx);
    }
    ESYS_CONTEXT* ctx = nullptr;
};

// Reads the counter of the RPMB at `path` (device node or simulator files) into `counter`;
// false after an error line.
bool read_rpmb_counter(CheckContext& ctx, const std::string& path, unsigned* counter) {
    const char* name = "RPMB";
    int rc = 0;
    if (is_dev(path.c_str())) {
        if (!ctx.user_may_access(name, path, R_OK | W_OK,
                                 "let group zelenroll read and write the node (the udev rule "
                                 "60-zelenroll-rpmb.rules: GROUP zelenroll, MODE 0660)"))
            return false;
        RPMBDevice device;
        if (!device.open(path.c_str())) {
            ctx.report.error(name, "'" + path + "' does not open: " + g_strerror(errno),
                             "check that this is the eMMC's RPMB partition (mmcblk0rpmb)");
            return false;
        }
        rc = device.read_counter(nullptr, counter, nullptr);
        const int err = errno;
        device.close();
        errno = err;
    } else {
        const std::string fix = "make it with rpmbsim create, or give the daemon's --rpmb here too";
        for (const char* suffix : {".key", ".wrctr", ".data"}) {
            const int mode = std::string(suffix) == ".key" ? R_OK : R_OK | W_OK;
            if (!ctx.user_may_access(name, path + suffix, mode, fix))
                return false;
        }
        RPMBSimulator simulator;
        if (!simulator.open(path)) {
            ctx.report.error(
                name, "simulated RPMB '" + path + "' does not open: " + g_strerror(errno), fix);
            return false;
        }
        rc = simulator.read_counter(nullptr, counter, nullptr);
    }
    if (rc != 0) {
        const GCharPtr why(rc < 0 ? g_strdup(g_strerror(errno))
                                  : g_strdup_printf("RPMB result 0x%x", rc));
        ctx.report.error(name, "'" + path + "': reading the write counter failed: " + why.get(),
                         "check the eMMC and its driver (dmesg)");
        return false;
    }
    return true;
}

}  // namespace

void check_rpmb(CheckContext& ctx) {
    if (!ctx.offers(PROTO_EMMC_RPMB_CSR))
        return;
    const char* name = "RPMB";
    const std::string path = ctx.opts.rpmb_path();
    unsigned counter = 0;
    if (!read_rpmb_counter(ctx, path, &counter))
        return;
    const unsigned max = Enroller::MAX_RPMB_WRITE_COUNTER;
    std::string found =
        "'" + path + "'" + (is_dev(path.c_str()) ? " (" + ownership_text(path) + ")" : "") +
        ": write counter " + std::to_string(counter) + ", " +
        std::to_string(counter < max ? max - counter : 0) + " writes left; writes in the last";
    const EnrollerRPMBStatus& history = ctx.stored.status.rpmb;
    for (auto it = std::rbegin(RetryPolicy::RPMB_WRITE_RATES);
         it != std::rend(RetryPolicy::RPMB_WRITE_RATES); ++it)
        found += (it == std::rbegin(RetryPolicy::RPMB_WRITE_RATES) ? " " : ", ") +
                 std::to_string(it->window / 86400) + " days " +
                 std::to_string(history.countWritesInLastSecs(it->window, nullptr)) + "/" +
                 std::to_string(it->limit);
    if (counter >= max) {
        ctx.report.error(name, found,
                         "offer another protocol: this eMMC has no RPMB write left for "
                         "enrolling");
        return;
    }
    RetryPolicy::RateLimit hit{};
    if (RetryPolicy::rpmb_rate_limited(history, &hit)) {
        const GCharPtr wait(g_strdup_printf("%.1f", static_cast<double>(hit.wait) / 3600));
        ctx.report.warning(
            name, found + ": the write-rate limit holds enrollment back for " + wait.get() + " h",
            "wait, and trigger re-enrollments sparingly: each one costs a write");
        return;
    }
    ctx.report.ok(name, found);
}

void check_tpm(CheckContext& ctx) {
    if (!ctx.offers(PROTO_TPM2_AUTHKEY_CSR))
        return;
    const char* name = "TPM";
    const bool node = g_file_test(kTpmNode, G_FILE_TEST_EXISTS);
    if (node && !ctx.user_may_access(name, kTpmNode, R_OK | W_OK,
                                     "add the daemon's user to the group owning it (usermod "
                                     "-aG tss zelenroll)"))
        return;
    const std::string via = node ? "a TPM answers" : "a TPM answers (without /dev/tpmrm0)";

    EsysContext esys;
    TSS2_ABI_VERSION abi{1, 2, 1, 108};
    TSS2_RC rc = Esys_Initialize(&esys.ctx, nullptr, &abi);
    if (rc != TSS2_RC_SUCCESS) {
        esys.ctx = nullptr;
        ctx.report.error(name, "no TPM answers through the default TCTI: " + rc_text(rc),
                         "load the TPM driver so that /dev/tpmrm0 appears, or start tpm2-abrmd");
        return;
    }
    ESysResource<false> key(esys.ctx);
    rc = Esys_TR_FromTPMPublic(esys.ctx, TPM2::AUTHKEY_HANDLE, ESYS_TR_NONE, ESYS_TR_NONE,
                               ESYS_TR_NONE, key.out());
    if (rc == RC_HANDLE_1 || rc == RC_ESYS_BAD_VALUE) {
        ctx.report.ok(name, via +
                                ", no key at 0x81018001 yet: will be created at the next "
                                "attempt");
        return;
    }
    const std::string fix_read = "check the TPM with tpm2_readpublic -c 0x81018001";
    if (rc != TSS2_RC_SUCCESS) {
        ctx.report.error(name, via + ", the key at 0x81018001 cannot be read: " + rc_text(rc),
                         fix_read);
        return;
    }
    ESysPtr<TPM2B_PUBLIC> pub;
    ESysPtr<TPM2B_NAME> key_name;
    ESysPtr<TPM2B_NAME> qualified;
    rc = Esys_ReadPublic(esys.ctx, key.get(), ESYS_TR_NONE, ESYS_TR_NONE, ESYS_TR_NONE,
                         esys_out(pub), esys_out(key_name), esys_out(qualified));
    if (rc != TSS2_RC_SUCCESS) {
        ctx.report.error(
            name, via + ", the public area at 0x81018001 cannot be read: " + rc_text(rc), fix_read);
        return;
    }
    if (!TPM2::check_auth_key_pub(pub->publicArea, *key_name, *qualified)) {
        ctx.report.warning(name,
                           via +
                               ", the key at 0x81018001 is not the daemon's template: each "
                               "attempt uses a transient key the server may not know",
                           "if nothing else needs it, evict it (tpm2_evictcontrol -C o -c "
                           "0x81018001) so that the daemon persists its own");
        return;
    }
    ctx.report.ok(name, via +
                            ", key at 0x81018001 matches the template (RSA 2048, attributes "
                            "0x00060472)");
}
