// Request frames to the file-backed RPMB simulator, which must answer every one of them as
// a card would: in the response frames, or with EINVAL for what no card is asked.
#include <cerrno>
#include <cstring>
#include <vector>

#include "FuzzSupport.h"
#include "RPMBAuth.h"
#include "RPMBSimulator.h"
#include "SysUtils.h"

namespace {

using Frame = RPMB::Frame;

// Flags of the first input byte. Writes pass the MAC check only with the key, which the
// fuzzer cannot guess, and the counter check only with the current counter.
constexpr uint8_t kSignWrite = 1;
constexpr uint8_t kCurrentCounter = 2;
constexpr uint8_t kTooManyResponses = 0xf0;  // all of these bits

const unsigned char kKey[RPMB::KEY_SIZE] = {0x5a, 0x31, 0x07, 0xc4};

struct Simulated {
    Simulated() {
        base = fuzz::scratch_file("rpmb");
        const std::vector<unsigned char> key(kKey, kKey + sizeof kKey);
        if (!RPMBSimulator::create(base, key, RPMBSimulator::SIZE_UNIT) || !rpmb.open(base))
            abort();
    }
    // The counter as stored, which a valid write must carry.
    uint32_t stored_counter() const {
        unsigned char be[4] = {};
        if (!read_data_file((base + ".wrctr").c_str(), be, sizeof be, false))
            abort();
        return uint32_t{be[0]} << 24 | uint32_t{be[1]} << 16 | uint32_t{be[2]} << 8 | be[3];
    }

    std::string base;
    RPMBSimulator rpmb;
};

Simulated& simulated() {
    static Simulated instance;
    return instance;
}

void sign_write(std::vector<Frame>& frames) {
    const Frame& first = frames.front();
    if (first.type() != RPMB::TYPE_DATA_WRITE || first.block_count() != frames.size())
        return;  // refused before the MAC is looked at
    std::vector<unsigned char> data;
    for (const Frame& frame : frames)
        data.insert(data.end(), frame.data, frame.data + RPMB::BLOCK_SIZE);
    RPMBAuth auth(kKey);
    if (!auth.new_write_req_mac(data.data(), first.write_counter(), first.address(),
                                first.block_count()))
        abort();
    memcpy(frames.back().mac, auth.mac, sizeof auth.mac);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3)
        return 0;
    const uint8_t flags = data[0];
    // Up to a few frames past the 512 blocks of the simulated card.
    unsigned long nrsp = (data[1] << 8 | data[2]) % 520;
    if ((flags & kTooManyResponses) == kTooManyResponses)
        nrsp = RPMB::MAX_FRAMES + 1;
    data += 3;
    size -= 3;

    std::vector<Frame> req((size + sizeof(Frame) - 1) / sizeof(Frame));
    if (!req.empty()) {
        memset(req.data(), 0, req.size() * sizeof(Frame));
        memcpy(req.data(), data, size);
    }
    Simulated& sim = simulated();
    if (flags & kCurrentCounter) {
        for (Frame& frame : req)
            frame.set_write_counter(sim.stored_counter());
    }
    if ((flags & kSignWrite) && !req.empty())
        sign_write(req);

    // Exactly as many response frames as asked for, so that a write past them is caught;
    // a count beyond the limit gets one, as it must be refused before any is written.
    std::vector<Frame> rsp(nrsp > RPMB::MAX_FRAMES ? 1 : nrsp);
    errno = 0;
    const int rc = sim.rpmb.do_op(req.empty() ? nullptr : req.data(), req.size(),
                                  rsp.empty() ? nullptr : rsp.data(), nrsp);
    if (rc != 0) {
        if (rc != -1 || errno != EINVAL)
            abort();
        return 0;
    }
    // Only the three requests a card answers may be answered, each in its own response type.
    const uint16_t type = req.front().type();
    if (type != RPMB::TYPE_COUNTER_READ && type != RPMB::TYPE_DATA_WRITE &&
        type != RPMB::TYPE_DATA_READ)
        abort();
    for (unsigned long i = 0; i < nrsp; ++i) {
        if (rsp[i].type() != type << 8)
            abort();
    }
    return 0;
}
