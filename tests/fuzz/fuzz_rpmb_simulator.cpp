// Request frames to the file-backed RPMB simulator, which must answer every one of them as
// a card would: in the response frames, or with EINVAL for what no card is asked.
#include <cerrno>
#include <cstring>
#include <vector>

#include "FuzzSupport.h"
#include "RPMBAuth.h"
#include "RPMBSimulator.h"

namespace {

using Frame = RPMB::Frame;

const unsigned char kKey[RPMB::KEY_SIZE] = {0x5a, 0x31, 0x07, 0xc4};

RPMBSimulator& simulator() {
    static RPMBSimulator sim;
    static const bool opened = [] {
        const std::string base = fuzz::scratch_file("rpmb");
        const std::vector<unsigned char> key(kKey, kKey + sizeof kKey);
        return RPMBSimulator::create(base, key, RPMBSimulator::SIZE_UNIT) && sim.open(base);
    }();
    if (!opened)
        abort();
    return sim;
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

// Input: flags, a 16-bit response count, then the request frames. Flag 1 signs a write with
// the key, which the fuzzer cannot guess; flag 2 gives every frame the stored counter, which
// a valid write must carry; flags 0xf0 all set ask for more responses than any operation may.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3)
        return 0;
    const uint8_t flags = data[0];
    // Up to a few frames past the 512 blocks of the simulated card.
    const unsigned long nrsp =
        (flags & 0xf0) == 0xf0 ? RPMB::MAX_FRAMES + 1 : (data[1] << 8 | data[2]) % 520;
    std::vector<Frame> req((size - 3 + sizeof(Frame) - 1) / sizeof(Frame));  // zero-filled
    if (size > 3)
        memcpy(req.data(), data + 3, size - 3);
    RPMBSimulator& sim = simulator();
    unsigned int counter = 0;
    if ((flags & 2) && sim.read_counter(nullptr, &counter, nullptr) < 0)
        abort();
    for (Frame& frame : req)
        frame.set_write_counter(flags & 2 ? counter : frame.write_counter());
    if ((flags & 1) && !req.empty())
        sign_write(req);

    // Exactly as many response frames as asked for, so that a write past them is caught;
    // a count beyond the limit gets one, as it must be refused before any is written.
    std::vector<Frame> rsp(nrsp > RPMB::MAX_FRAMES ? 1 : nrsp);
    errno = 0;
    const int rc = sim.do_op(req.empty() ? nullptr : req.data(), req.size(),
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
    for (const Frame& frame : rsp) {
        if (frame.type() != type << 8)
            abort();
    }
    return 0;
}
