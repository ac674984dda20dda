#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "RPMBAuth.h"
#include "RPMBDevice.h"
#include "RPMBSimulator.h"
#include "TempDir.h"

namespace {

using Frame = RPMB::Frame;
using Frames = std::vector<Frame>;

const std::vector<unsigned char> kKey = [] {
    std::vector<unsigned char> key(32);
    for (size_t i = 0; i < key.size(); ++i)
        key[i] = static_cast<unsigned char>(0xA0 + i);
    return key;
}();

unsigned char pattern(unsigned long block, size_t i) {
    return static_cast<unsigned char>(block * 7 + i);
}

template <typename Case>
std::string case_name(const testing::TestParamInfo<Case>& tested) {
    return tested.param.name;
}

std::string file_bytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// A simulated RPMB of 512 blocks, block n filled with pattern(n, ...), and the key holder.
class Simulator : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(RPMBSimulator::create(base, kKey, 0x20000));
        std::string data(0x20000, '\0');
        for (size_t i = 0; i < data.size(); ++i)
            data[i] = static_cast<char>(pattern(i / 256, i % 256));
        dir.write("rpmb.data", data);
        ASSERT_TRUE(sim.open(base));
    }
    void set_counter(uint32_t counter) {
        sim.close();
        const char be[4] = {char(counter >> 24), char(counter >> 16), char(counter >> 8),
                            char(counter)};
        dir.write("rpmb.wrctr", std::string(be, 4));
        ASSERT_TRUE(sim.open(base));
    }
    uint32_t counter() {
        unsigned int value = 0;
        EXPECT_EQ(sim.read_counter(nullptr, &value, nullptr) & ~RPMB::RESULT_EXPIRED, 0);
        return value;
    }

    TempDir dir;
    const std::string base = dir.file("rpmb");
    RPMBSimulator sim;
    RPMBAuth auth{kKey.data()};
};

struct WriteCase {
    const char* name;
    uint32_t stored;    // the simulator's counter
    int counter_delta;  // of the request against the stored counter
    uint16_t address;
    unsigned nframes;
    void (*tamper)(Frames&);  // applied after the MAC is made
    uint16_t result;
};

class SimulatorWrite : public Simulator, public testing::WithParamInterface<WriteCase> {};

TEST_P(SimulatorWrite, AnswersWithResultAndMAC) {
    const WriteCase& c = GetParam();
    set_counter(c.stored);
    Frames req(c.nframes);
    std::vector<unsigned char> data(c.nframes * 256, 0x5A);
    const uint32_t req_counter = c.stored + c.counter_delta;
    for (unsigned i = 0; i < c.nframes; ++i) {
        req[i].clear();
        req[i].set_write_counter(req_counter);
        req[i].set_address(c.address);
        req[i].set_block_count(static_cast<uint16_t>(c.nframes));
        req[i].set_type(RPMB::TYPE_DATA_WRITE);
        memcpy(req[i].data, &data[i * 256], 256);
    }
    ASSERT_TRUE(auth.new_write_req_mac(data.data(), req_counter, c.address,
                                       static_cast<uint16_t>(c.nframes)));
    memcpy(req.back().mac, auth.mac, 32);
    if (c.tamper)
        c.tamper(req);

    Frame rsp;
    ASSERT_EQ(sim.do_op(req.data(), req.size(), &rsp, 1), 0);
    const uint32_t expected_counter = c.result == 0 ? c.stored + 1 : c.stored;
    EXPECT_EQ(rsp.result(), c.result);
    EXPECT_EQ(rsp.type(), RPMB::TYPE_DATA_WRITE_RSP);
    EXPECT_EQ(rsp.write_counter(), expected_counter);
    EXPECT_EQ(rsp.address(), c.address);
    ASSERT_TRUE(auth.new_write_rsp_mac(rsp.write_counter(), c.address, rsp.result()));
    EXPECT_EQ(memcmp(rsp.mac, auth.mac, 32), 0);
    EXPECT_EQ(counter(), expected_counter);

    // Written blocks hold the new data, refused ones their old contents.
    std::vector<unsigned char> block(256);
    if (c.address < 512 && sim.read(c.address, 1, nullptr, block.data(), nullptr) == 0) {
        EXPECT_EQ(block[0], c.result == 0 ? 0x5A : pattern(c.address, 0));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, SimulatorWrite,
    testing::Values(
        WriteCase{"OneBlock", 0, 0, 1, 1, nullptr, 0},
        WriteCase{"TwoBlocksEven", 41, 0, 510, 2, nullptr, 0},
        WriteCase{"WrongMAC", 0, 0, 1, 1, [](Frames& f) { f[0].mac[31] ^= 1; }, 2},
        WriteCase{"DataChanged", 0, 0, 2, 2, [](Frames& f) { f[1].data[255] ^= 0x80; }, 2},
        WriteCase{"StaleCounter", 5, -1, 1, 1, nullptr, 3},
        WriteCase{"TwoBlocksOdd", 0, 0, 3, 2, nullptr, 4},
        WriteCase{"BeyondEnd", 0, 0, 512, 1, nullptr, 4},
        WriteCase{"TwoBlocksOverEnd", 0, 0, 511, 2, nullptr, 4},
        WriteCase{"ThreeBlocks", 0, 0, 0, 3, nullptr, 1},
        WriteCase{"Nonce", 0, 0, 1, 1, [](Frames& f) { f[0].nonce[0] = 1; }, 1},
        WriteCase{"MACOnFirstFrame", 0, 0, 2, 2, [](Frames& f) { f[0].mac[0] = 1; }, 1},
        WriteCase{"BlockCountMismatch", 0, 0, 1, 1, [](Frames& f) { f[0].set_block_count(2); }, 1},
        WriteCase{"AddressDiffers", 0, 0, 2, 2, [](Frames& f) { f[1].set_address(3); }, 1},
        WriteCase{"Expired", 0xFFFFFFFF, 0, 1, 1, nullptr, 0x85}),
    case_name<WriteCase>);

struct CounterCase {
    const char* name;
    uint32_t stored;
    void (*tamper)(Frame&);
    uint16_t result;
};

class SimulatorCounter : public Simulator, public testing::WithParamInterface<CounterCase> {};

TEST_P(SimulatorCounter, AnswersWithNonceAndMAC) {
    const CounterCase& c = GetParam();
    set_counter(c.stored);
    Frame req{};
    req.set_type(RPMB::TYPE_COUNTER_READ);
    ASSERT_TRUE(auth.new_nonce());
    memcpy(req.nonce, auth.nonce, 16);
    if (c.tamper)
        c.tamper(req);
    Frame rsp;
    ASSERT_EQ(sim.do_op(&req, 1, &rsp, 1), 0);
    EXPECT_EQ(rsp.result(), c.result);
    EXPECT_EQ(rsp.write_counter(), c.stored);
    EXPECT_EQ(memcmp(rsp.nonce, auth.nonce, 16), 0);
    ASSERT_TRUE(auth.new_read_counter_rsp_mac(c.stored, c.result));
    EXPECT_EQ(memcmp(rsp.mac, auth.mac, 32), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, SimulatorCounter,
    testing::Values(CounterCase{"Valid", 7, nullptr, 0},
                    CounterCase{"AddressSet", 7, [](Frame& f) { f.set_address(1); }, 1},
                    CounterCase{"DataSet", 7, [](Frame& f) { f.data[9] = 1; }, 1},
                    CounterCase{"Expired", 0xFFFFFFFF, nullptr, 0x80},
                    CounterCase{"ExpiredAndInvalid", 0xFFFFFFFF, [](Frame& f) { f.set_result(1); },
                                0x81}),
    case_name<CounterCase>);

struct ReadCase {
    const char* name;
    uint16_t address;
    unsigned long count;
    void (*tamper)(Frame&);
    uint16_t result;
};

class SimulatorRead : public Simulator, public testing::WithParamInterface<ReadCase> {};

TEST_P(SimulatorRead, AnswersEveryFrame) {
    const ReadCase& c = GetParam();
    Frame req{};
    req.set_type(RPMB::TYPE_DATA_READ);
    req.set_address(c.address);
    ASSERT_TRUE(auth.new_nonce());
    memcpy(req.nonce, auth.nonce, 16);
    if (c.tamper)
        c.tamper(req);
    Frames rsp(c.count);
    ASSERT_EQ(sim.do_op(&req, 1, rsp.data(), c.count), 0);

    std::vector<unsigned char> data(c.count * 256);
    for (unsigned long i = 0; i < c.count; ++i) {
        EXPECT_EQ(rsp[i].result(), c.result);
        EXPECT_EQ(rsp[i].type(), RPMB::TYPE_DATA_READ_RSP);
        EXPECT_EQ(rsp[i].address(), c.address);
        EXPECT_EQ(rsp[i].block_count(), c.count);
        EXPECT_EQ(rsp[i].data[3], c.result == 0 ? pattern(c.address + i, 3) : 0);
        memcpy(&data[i * 256], rsp[i].data, 256);
    }
    ASSERT_TRUE(auth.new_read_rsp_mac(data.data(), c.address, c.count, c.result));
    EXPECT_EQ(memcmp(rsp.back().mac, auth.mac, 32), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, SimulatorRead,
    testing::Values(ReadCase{"TwoBlocks", 4, 2, nullptr, 0},
                    ReadCase{"LastBlock", 511, 1, nullptr, 0},
                    ReadCase{"OverEnd", 511, 2, nullptr, 4},
                    ReadCase{"BlockCountSet", 0, 1, [](Frame& f) { f.set_block_count(1); }, 1},
                    ReadCase{"CounterSet", 0, 1, [](Frame& f) { f.set_write_counter(1); }, 1},
                    ReadCase{"MACSet", 0, 1, [](Frame& f) { f.mac[0] = 1; }, 1}),
    case_name<ReadCase>);

TEST_F(Simulator, CounterPersistsAcrossReopen) {
    std::vector<unsigned char> data(256, 1);
    ASSERT_TRUE(auth.new_write_req_mac(data.data(), 0, 8, 1));
    ASSERT_EQ(sim.write(8, 1, 0, data.data(), auth.mac, nullptr, nullptr, nullptr), 0);
    sim.close();
    EXPECT_EQ(file_bytes(base + ".wrctr"), std::string("\0\0\0\1", 4));
    RPMBSimulator again;
    ASSERT_TRUE(again.open(base));
    unsigned int value = 0;
    EXPECT_EQ(again.read_counter(nullptr, &value, nullptr), 0);
    EXPECT_EQ(value, 1u);
    EXPECT_FALSE(again.open(base)) << "a second open of an open simulator";
}

TEST(RPMBSimulatorFiles, CreateAndOpenRules) {
    TempDir dir;
    for (const unsigned long size : {0x20000ul, 0x1000000ul}) {
        ASSERT_TRUE(RPMBSimulator::create(dir.file("ok"), kKey, size)) << size;
        EXPECT_EQ(file_bytes(dir.file("ok.data")), std::string(size, '\0'));
        EXPECT_EQ(file_bytes(dir.file("ok.wrctr")), std::string(4, '\0'));
        EXPECT_EQ(file_bytes(dir.file("ok.key")), std::string(kKey.begin(), kKey.end()));
    }
    for (const unsigned long size : {0ul, 0x20001ul, 0x1020000ul})
        EXPECT_FALSE(RPMBSimulator::create(dir.file("bad"), kKey, size)) << size;
    EXPECT_FALSE(RPMBSimulator::create(dir.file("bad"), {kKey.begin(), kKey.end() - 1}, 0x20000));
    EXPECT_FALSE(RPMBSimulator::create(dir.file("missing/x"), kKey, 0x20000));

    RPMBSimulator sim;
    errno = 0;
    EXPECT_FALSE(sim.open(dir.file("bad")));
    EXPECT_EQ(errno, ENOENT);
    dir.write("ok.key", std::string(31, 'k'));
    EXPECT_FALSE(sim.open(dir.file("ok"))) << "short key file";
}

// Both back ends refuse the same malformed operations before touching anything; a device
// that is not open then fails only in the ioctl itself.
TEST(RPMBDoOp, ArgumentRules) {
    TempDir dir;
    ASSERT_TRUE(RPMBSimulator::create(dir.file("rpmb"), kKey, 0x20000));
    RPMBSimulator sim;
    ASSERT_TRUE(sim.open(dir.file("rpmb")));
    RPMBDevice dev;
    LogCapture log;  // raising the capability fails without root
    struct Case {
        uint16_t type;
        bool null_req;
        unsigned long nreq, nrsp;
        bool valid;
    };
    const Case cases[] = {
        {RPMB::TYPE_DATA_READ, true, 1, 1, false},
        {RPMB::TYPE_DATA_READ, false, 0, 1, false},
        {RPMB::TYPE_DATA_READ, false, 1, 0, false},
        {RPMB::TYPE_DATA_READ, false, 1, 65536, false},
        {RPMB::TYPE_COUNTER_READ, false, 1, 2, false},
        {RPMB::TYPE_DATA_WRITE, false, 1, 2, false},
        {RPMB::TYPE_KEY_PROGRAM, false, 1, 1, false},
        {RPMB::TYPE_RESULT_READ, false, 1, 1, false},
        {RPMB::TYPE_DATA_READ, false, 1, 65535, true},
        {RPMB::TYPE_COUNTER_READ, false, 1, 1, true},
    };
    Frames rsp(65536);
    for (const Case& c : cases) {
        Frame req{};
        req.set_type(c.type);
        const Frame* const r = c.null_req ? nullptr : &req;
        errno = 0;
        EXPECT_EQ(sim.do_op(r, c.nreq, rsp.data(), c.nrsp), c.valid ? 0 : -1) << c.type;
        EXPECT_EQ(errno, c.valid ? 0 : EINVAL) << c.type << " " << c.nrsp;
        errno = 0;
        EXPECT_EQ(dev.do_op(r, c.nreq, rsp.data(), c.nrsp), -1) << c.type;
        EXPECT_EQ(errno, c.valid ? EBADF : EINVAL) << c.type << " " << c.nrsp;
    }
    EXPECT_TRUE(dev.open("/dev/null"));
    EXPECT_TRUE(dev.close());
    EXPECT_FALSE(dev.close());
}

// Answers every operation with one canned response, recording the request.
class CannedRPMB : public RPMB {
  public:
    int do_op(const Frame* req, unsigned long nreq, Frame* rsp, unsigned long nrsp) override {
        ++calls;
        sent.assign(req, req + nreq);
        for (unsigned long i = 0; i < nrsp; ++i) {
            rsp[i] = answer;
            memset(rsp[i].data, static_cast<int>(i + 1), 256);
            rsp[i].mac[0] = static_cast<unsigned char>(i + 1);
        }
        return 0;
    }
    Frame answer{};
    int calls = 0;
    Frames sent;
};

TEST(RPMBOperations, BuildRequestsAndCheckResponses) {
    CannedRPMB rpmb;
    std::vector<unsigned char> data(3 * 256, 0x11), mac(32, 0x22);
    unsigned int counter = 0;
    EXPECT_EQ(rpmb.read(0, 0, nullptr, data.data(), nullptr), 0);
    EXPECT_EQ(rpmb.write(0, 0, 0, data.data(), mac.data(), nullptr, nullptr, nullptr), 0);
    errno = 0;
    EXPECT_EQ(rpmb.write(0, 3, 0, data.data(), mac.data(), nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    for (const unsigned long count : {65536ul, 1ul << 54, ~0ul}) {
        errno = 0;
        EXPECT_EQ(rpmb.read(0, count, nullptr, data.data(), nullptr), -1) << count;
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(rpmb.calls, 0);

    rpmb.answer.set_type(RPMB::TYPE_DATA_WRITE_RSP);
    errno = 0;
    EXPECT_EQ(rpmb.read(0, 1, nullptr, data.data(), nullptr), -1);
    EXPECT_EQ(errno, EILSEQ);
    EXPECT_EQ(rpmb.read_counter(nullptr, &counter, nullptr), -1);
    EXPECT_EQ(errno, EILSEQ);

    rpmb.answer.set_type(RPMB::TYPE_COUNTER_READ_RSP);
    rpmb.answer.set_write_counter(9);
    rpmb.answer.set_result(3);
    EXPECT_EQ(rpmb.read_counter(nullptr, &counter, mac.data()), 3);
    EXPECT_EQ(counter, 9u) << "the counter is stored whatever the result";

    rpmb.answer.set_type(RPMB::TYPE_DATA_READ_RSP);
    const unsigned char nonce[16] = {1, 2, 3};
    EXPECT_EQ(rpmb.read(0x10005, 3, nonce, data.data(), mac.data()), 3);
    ASSERT_EQ(rpmb.sent.size(), 1u);
    EXPECT_EQ(rpmb.sent[0].address(), 5);
    EXPECT_EQ(rpmb.sent[0].block_count(), 0);
    EXPECT_EQ(rpmb.sent[0].nonce[2], 3);
    EXPECT_EQ(data[0] + data[256] + data[767], 1 + 2 + 3);
    EXPECT_EQ(mac[0], 3) << "the MAC of the last frame";

    rpmb.answer.set_type(RPMB::TYPE_DATA_WRITE_RSP);
    rpmb.answer.set_address(6);
    data[256] = 0x33;
    unsigned short rsp_address = 0;
    EXPECT_EQ(rpmb.write(6, 2, 9, data.data(), mac.data(), nullptr, &counter, &rsp_address), 3);
    EXPECT_EQ(rsp_address, 6);
    ASSERT_EQ(rpmb.sent.size(), 2u);
    for (const Frame& f : rpmb.sent) {
        EXPECT_EQ(f.write_counter(), 9u);
        EXPECT_EQ(f.block_count(), 2);
        EXPECT_EQ(f.type(), RPMB::TYPE_DATA_WRITE);
    }
    EXPECT_EQ(rpmb.sent[1].data[0], 0x33);
    EXPECT_EQ(rpmb.sent[0].mac[0], 0) << "only the last frame carries the MAC";
    EXPECT_EQ(rpmb.sent[1].mac[0], 3);
}

TEST(RPMBAuth, KeyAndNonce) {
    RPMBAuth auth;
    unsigned char block[256] = {};
    EXPECT_FALSE(auth.new_mac(block, 1, 0, 0, 1, 0, RPMB::TYPE_DATA_WRITE));
    EXPECT_EQ(memcmp(auth.mac, block, 32), 0) << "mac unchanged without a key";
    ASSERT_TRUE(auth.new_nonce());
    unsigned char first[16];
    memcpy(first, auth.nonce, 16);
    ASSERT_TRUE(auth.new_nonce());
    EXPECT_NE(memcmp(first, auth.nonce, 16), 0);
}

}  // namespace
