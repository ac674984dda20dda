// Response frames of an RPMB card, as the counter read, the authenticated read and the
// authenticated write check them. A card stand-in answers with the fuzzer's bytes; what
// each operation makes of them must be what it promises.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "FuzzSupport.h"
#include "RPMB.h"

namespace {

using Frame = RPMB::Frame;
constexpr size_t kBlock = RPMB::BLOCK_SIZE;

// Answers with the fuzzer's bytes, or fails with EIO.
class ScriptedCard : public RPMB {
  public:
    ScriptedCard(const uint8_t* data, size_t size, bool fail)
        : data(data), size(size), fail(fail) {}

    int do_op(const Frame*, unsigned long, Frame* rsp, unsigned long nrsp) override {
        ++calls;
        answers.assign(nrsp, Frame{});  // how many the operation asked for
        memcpy(answers.data(), data, std::min(size, nrsp * sizeof(Frame)));
        if (fail)
            errno = EIO;
        else
            std::copy(answers.begin(), answers.end(), rsp);
        return fail ? -1 : 0;
    }

    const uint8_t* data;
    size_t size;
    bool fail;
    int calls = 0;
    std::vector<Frame> answers;
};

void check(bool condition) {
    if (!condition)
        abort();
}

// One call with `nrsp` responses, then the card's error, a wrong response type, or its
// result code; true when the operation succeeded and its outputs are to be checked.
bool answered(const ScriptedCard& card, int rc, unsigned long nrsp, uint16_t type) {
    check(card.calls == 1 && card.answers.size() == nrsp);
    if (card.fail)
        check(rc == -1 && errno == EIO);
    else if (card.answers.front().type() != type)
        check(rc == -1 && errno == EILSEQ);
    else
        check(rc == card.answers.front().result());
    return rc >= 0;
}

bool same_mac(const unsigned char* mac, const Frame& frame) {
    return memcmp(mac, frame.mac, RPMB::MAC_SIZE) == 0;
}

}  // namespace

// Input: operation and flags, a block count, a 16-bit address, then the response frames.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4)
        return 0;
    const uint8_t op = data[0];
    const unsigned long count = data[1] % 10;
    // Addresses beyond 16 bits must be cut to their low 16 bits.
    const unsigned long address = (data[2] << 8 | data[3]) + (op & 0x40 ? 0x12340000ul : 0);
    ScriptedCard card(data + 4, size - 4, op & 0x10);
    const unsigned char nonce[RPMB::NONCE_SIZE] = {1, 2, 3};
    const unsigned char* const maybe_nonce = op & 0x20 ? nonce : nullptr;
    unsigned char mac[RPMB::MAC_SIZE] = {};
    unsigned int counter = 0;
    const auto& answers = card.answers;
    if (op % 3 == 0) {
        const int rc = card.read_counter(maybe_nonce, &counter, mac);
        if (answered(card, rc, 1, RPMB::TYPE_COUNTER_READ_RSP))
            check(counter == answers[0].write_counter() && same_mac(mac, answers[0]));
    } else if (op % 3 == 1) {
        std::vector<unsigned char> blocks(count * kBlock);  // exactly what it may fill
        const int rc = card.read(address, count, maybe_nonce, blocks.data(), mac);
        if (count == 0) {
            check(rc == 0 && card.calls == 0);
        } else if (answered(card, rc, count, RPMB::TYPE_DATA_READ_RSP)) {
            for (unsigned long i = 0; i < count; ++i)
                check(memcmp(&blocks[i * kBlock], answers[i].data, kBlock) == 0);
            check(same_mac(mac, answers.back()));
        }
    } else {
        const unsigned long blocks = count % 4;
        const std::vector<unsigned char> payload(blocks * kBlock, 0xd7);
        const unsigned char request_mac[RPMB::MAC_SIZE] = {7, 8, 9};
        unsigned short rsp_address = 0;
        const int rc = card.write(address, blocks, 42, payload.data(), request_mac, mac, &counter,
                                  &rsp_address);
        if (blocks == 0 || blocks > 2)
            check(card.calls == 0 && (blocks == 0 ? rc == 0 : rc == -1 && errno == EINVAL));
        else if (answered(card, rc, 1, RPMB::TYPE_DATA_WRITE_RSP))
            check(counter == answers[0].write_counter() && rsp_address == answers[0].address() &&
                  same_mac(mac, answers[0]));
    }
    return 0;
}
