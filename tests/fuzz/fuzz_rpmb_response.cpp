// Response frames of an RPMB card, as the counter read, the authenticated read and the
// authenticated write check them. A card stand-in answers with the fuzzer's bytes; what
// each operation makes of them must be what it promises.
#include <cerrno>
#include <cstring>
#include <vector>

#include "FuzzSupport.h"
#include "RPMB.h"

namespace {

using Frame = RPMB::Frame;

class ScriptedCard : public RPMB {
  public:
    ScriptedCard(const uint8_t* data, size_t size, bool fail)
        : data(data), size(size), fail(fail) {}

    int do_op(const Frame*, unsigned long, Frame* rsp, unsigned long nrsp) override {
        ++calls;
        responses = nrsp;
        if (fail) {
            errno = EIO;
            return -1;
        }
        memset(rsp, 0, nrsp * sizeof(Frame));
        memcpy(rsp, data, std::min(size, nrsp * sizeof(Frame)));
        answers.assign(rsp, rsp + nrsp);
        return 0;
    }

    const uint8_t* data;
    size_t size;
    bool fail;
    int calls = 0;
    unsigned long responses = 0;
    std::vector<Frame> answers;
};

void check(bool condition) {
    if (!condition)
        abort();
}

// The common outcome: the card's error, a wrong response type, or its result code.
void check_result(const ScriptedCard& card, int rc, int saved_errno, uint16_t type) {
    if (card.fail) {
        check(rc == -1 && saved_errno == EIO);
    } else if (card.answers.front().type() != type) {
        check(rc == -1 && saved_errno == EILSEQ);
    } else {
        check(rc == card.answers.front().result());
    }
}

void read_counter(ScriptedCard& card, bool with_nonce) {
    const unsigned char nonce[RPMB::NONCE_SIZE] = {1, 2, 3};
    unsigned int counter = 0;
    unsigned char mac[RPMB::MAC_SIZE] = {};
    const int rc = card.read_counter(with_nonce ? nonce : nullptr, &counter, mac);
    const int saved_errno = errno;
    check(card.calls == 1 && card.responses == 1);
    check_result(card, rc, saved_errno, RPMB::TYPE_COUNTER_READ_RSP);
    if (rc >= 0)
        check(counter == card.answers[0].write_counter() &&
              memcmp(mac, card.answers[0].mac, sizeof mac) == 0);
}

void read(ScriptedCard& card, unsigned long address, unsigned long count, bool with_nonce) {
    const unsigned char nonce[RPMB::NONCE_SIZE] = {4, 5, 6};
    std::vector<unsigned char> data(count * RPMB::BLOCK_SIZE);  // exactly what it may fill
    unsigned char mac[RPMB::MAC_SIZE] = {};
    const int rc = card.read(address, count, with_nonce ? nonce : nullptr, data.data(), mac);
    const int saved_errno = errno;
    if (count == 0) {
        check(rc == 0 && card.calls == 0);
        return;
    }
    check(card.calls == 1 && card.responses == count);
    check_result(card, rc, saved_errno, RPMB::TYPE_DATA_READ_RSP);
    if (rc < 0)
        return;
    for (unsigned long i = 0; i < count; ++i)
        check(memcmp(&data[i * RPMB::BLOCK_SIZE], card.answers[i].data, RPMB::BLOCK_SIZE) == 0);
    check(memcmp(mac, card.answers.back().mac, sizeof mac) == 0);
}

void write(ScriptedCard& card, unsigned long address, unsigned long count) {
    std::vector<unsigned char> data(count * RPMB::BLOCK_SIZE, 0xd7);
    const unsigned char mac[RPMB::MAC_SIZE] = {7, 8, 9};
    unsigned char rsp_mac[RPMB::MAC_SIZE] = {};
    unsigned int rsp_counter = 0;
    unsigned short rsp_address = 0;
    const int rc =
        card.write(address, count, 42, data.data(), mac, rsp_mac, &rsp_counter, &rsp_address);
    const int saved_errno = errno;
    if (count == 0 || count > 2) {
        check(card.calls == 0 && (count == 0 ? rc == 0 : rc == -1 && saved_errno == EINVAL));
        return;
    }
    check(card.calls == 1 && card.responses == 1);
    check_result(card, rc, saved_errno, RPMB::TYPE_DATA_WRITE_RSP);
    if (rc >= 0)
        check(rsp_counter == card.answers[0].write_counter() &&
              rsp_address == card.answers[0].address() &&
              memcmp(rsp_mac, card.answers[0].mac, sizeof rsp_mac) == 0);
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
    switch (op % 3) {
        case 0:
            read_counter(card, op & 0x20);
            break;
        case 1:
            read(card, address, count, op & 0x20);
            break;
        default:
            write(card, address, count % 4);
            break;
    }
    return 0;
}
