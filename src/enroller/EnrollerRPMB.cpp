#include "Enroller.h"

#include <cerrno>

#include "EnrollerMessages.h"
#include "RPMB.h"
#include "RPMBAuth.h"
#include "RPMBDevice.h"
#include "RPMBSimulator.h"
#include "SysUtils.h"

namespace {

constexpr unsigned long RPMB_BLOCK_SIZE = 256;
// The block count of an RPMB frame is 16 bits wide: no device answers more in one read.
constexpr unsigned long MAX_RPMB_READ_BLOCKS = 65535;
// The block the server authorises the daemon to write.
constexpr unsigned long RPMB_WRITE_BLOCK = 1;

GVariant* base64_variant(const unsigned char* data, size_t size) {
    const GCharPtr text(g_base64_encode(data, size));
    return g_variant_new_string(text.get());
}

// Reports a failed RPMB operation as "<what>: " followed by the system error (-1, with
// `err` from errno) or the result code the device answered; true when it succeeded.
bool rpmb_succeeded(int rc, int err, const GCharPtr& what) {
    if (rc < 0)
        g_warning("%s: %s (%i)", what.get(), g_strerror(err), err);
    else if (rc > 0)
        g_warning("%s: RPMB operation failed with code %i", what.get(), rc);
    return rc == 0;
}

}  // namespace

bool Enroller::open_rpmb() {
    close_rpmb();
    const char* path = info->rpmb_path.c_str();
    if (is_dev(path)) {
        auto device = std::make_unique<RPMBDevice>();
        if (!device->open(path)) {
            const int err = errno;
            g_warning("failed to open RPMB device '%s': %s (%i)", path, g_strerror(err), err);
            return false;
        }
        rpmb = std::move(device);
        return true;
    }
    auto simulator = std::make_unique<RPMBSimulator>();
    if (!simulator->open(info->rpmb_path)) {
        const int err = errno;
        g_warning("failed to open simulated RPMB with base name '%s': %s (%i)", path,
                  g_strerror(err), err);
        return false;
    }
    rpmb = std::move(simulator);
    return true;
}

// Neither back end closes itself on destruction the way the engine needs it to (a device
// does not close its descriptor at all), so close explicitly before dropping it.
void Enroller::close_rpmb() {
    if (auto* device = dynamic_cast<RPMBDevice*>(rpmb.get()))
        device->close();
    else if (auto* simulator = dynamic_cast<RPMBSimulator*>(rpmb.get()))
        simulator->close();
    rpmb.reset();
}

std::unique_ptr<RPMBReadResult> Enroller::rpmb_read(const RPMBReadRequest* req, const char* state) {
    if (!req) {
        g_warning("missing rpmbReadRequest in %s enroll response", state);
        return nullptr;
    }
    const unsigned long blocks = req->nrBlocks;
    const unsigned long start = req->startBlock;
    int rc = -1;
    auto result = std::make_unique<RPMBReadResult>();
    // the count comes from the server: refuse what no device can answer before allocating
    if (blocks > MAX_RPMB_READ_BLOCKS) {
        errno = EINVAL;
    } else {
        result->data.assign(blocks * RPMB_BLOCK_SIZE, 0);
        rc = rpmb->read(start, blocks, req->nonce, result->data.data(), result->hmac);
    }
    const int err = errno;
    if (!rpmb_succeeded(rc, err,
                        GCharPtr(g_strdup_printf("failed RPMB read of %lu blocks @ %lu for %s "
                                                 "enroll response",
                                                 blocks, start, state))))
        return nullptr;
    return result;
}

std::unique_ptr<RPMBSignAuthRequest> Enroller::rpmb_read_write_counter(const RPMBReadRequest* req,
                                                                       const char* state) {
    if (!req) {
        g_warning("missing rpmbReadRequest in %s enroll response", state);
        return nullptr;
    }
    auto request = std::make_unique<RPMBSignAuthRequest>();
    unsigned int counter = 0;
    const int rc = rpmb->read_counter(req->nonce, &counter, request->writeCounterHmac);
    const int err = errno;
    if (!rpmb_succeeded(rc, err,
                        GCharPtr(g_strdup_printf(
                            "failed RPMB read of write counter for %s enroll response", state))))
        return nullptr;
    // the device is the authority on how often it was written
    if (counter != status.rpmb.writeCounter) {
        status.rpmb.writeCounter = counter;
        status.save();
    }
    request->writeCounter = counter;
    return request;
}

bool Enroller::rpmb_write(const RPMBSignAuthorizer* auth, const char* state) {
    g_return_val_if_fail(status.rpmb.writeCounter <= MAX_RPMB_WRITE_COUNTER, false);
    if (!auth) {
        g_warning("missing rpmbSignAuthorizer in %s enroll response", state);
        return false;
    }
    const int rc = rpmb->write(RPMB_WRITE_BLOCK, 1, status.rpmb.writeCounter, auth->data,
                               auth->hmac, nullptr, nullptr, nullptr);
    const int err = errno;
    if (!rpmb_succeeded(rc, err,
                        GCharPtr(g_strdup_printf("failed RPMB write of %lu blocks @ %lu for %s "
                                                 "enroll response",
                                                 1ul, RPMB_WRITE_BLOCK, state))))
        return false;
    // saved at once: a write that a crash made the daemon forget would escape the rate limit
    status.rpmb.recordWrite();
    status.save();
    return true;
}

// The "rpmb" entry of the diagnosis: the write counter and the device identification of
// block 0, read with a fresh nonce so that its MAC proves it came from the device now.
void Enroller::diagnose_rpmb(GVariantBuilder* dict) {
    GVariantBuilder entries;
    g_variant_builder_init(&entries, G_VARIANT_TYPE_VARDICT);

    unsigned int counter = 0;
    int rc = rpmb->read_counter(nullptr, &counter, nullptr);
    if (rc == 0) {
        g_variant_builder_add(&entries, "{sv}", "counter", g_variant_new_uint32(counter));
    } else {
        const int err = errno;
        g_warning("failed to read RPMB write counter for diagnosis: %s (%i)",
                  rc < 0 ? g_strerror(err) : "RPMB failure", rc < 0 ? err : rc);
    }

    RPMBAuth auth;
    if (!auth.new_nonce())
        g_warning("failed to generate RPMB random nonce for diagnosis");
    unsigned char data[RPMB_BLOCK_SIZE] = {};
    unsigned char mac[32] = {};
    rc = rpmb->read(0, 1, auth.nonce, data, mac);
    if (rc == 0) {
        GVariantBuilder devid;
        g_variant_builder_init(&devid, G_VARIANT_TYPE_VARDICT);
        g_variant_builder_add(&devid, "{sv}", "data", base64_variant(data, sizeof data));
        g_variant_builder_add(&devid, "{sv}", "nonce",
                              base64_variant(auth.nonce, sizeof auth.nonce));
        g_variant_builder_add(&devid, "{sv}", "mac", base64_variant(mac, sizeof mac));
        g_variant_builder_add(&entries, "{sv}", "devid", g_variant_builder_end(&devid));
    } else {
        const int err = errno;
        g_warning("failed to read RPMB device ID data for diagnosis: %s (%i)",
                  rc < 0 ? g_strerror(err) : "RPMB failure", rc < 0 ? err : rc);
    }
    g_variant_builder_add(dict, "{sv}", "rpmb", g_variant_builder_end(&entries));
}
