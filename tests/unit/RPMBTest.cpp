#include <gtest/gtest.h>
#include <linux/mmc/ioctl.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <vector>

#include "RPMBDevice.h"
#include "RPMBSimulator.h"
#include "TestSupport.h"

namespace {

using Frame = RPMB::Frame;

// Both back ends refuse the same malformed operations before touching anything; a device
// that is not open then fails only in the ioctl itself.
TEST(RPMBDoOp, ArgumentRules) {
    TempDir dir;
    ASSERT_TRUE(RPMBSimulator::create(dir.file("rpmb"), std::vector<unsigned char>(32, 0xA0),
                                      RPMBSimulator::SIZE_UNIT));
    RPMBSimulator sim;
    ASSERT_TRUE(sim.open(dir.file("rpmb")));
    RPMBDevice dev;
    LogCapture log;  // raising the capability fails without root
    // What the ioctl itself says to a closed descriptor: EBADF, or ENOSYS under qemu-user,
    // which does not translate MMC_IOC_MULTI_CMD.
    errno = 0;
    EXPECT_EQ(ioctl(-1, MMC_IOC_MULTI_CMD, nullptr), -1);
    const int ioctl_errno = errno;
    EXPECT_TRUE(ioctl_errno == EBADF || ioctl_errno == ENOSYS) << ioctl_errno;
    // request type (0: no request frame at all), request and response frames, valid
    const struct {
        uint16_t type;
        unsigned long nreq, nrsp;
        bool valid;
    } cases[] = {
        {0, 1, 1, false},
        {RPMB::TYPE_DATA_READ, 0, 1, false},
        {RPMB::TYPE_DATA_READ, 1, 0, false},
        {RPMB::TYPE_DATA_READ, 1, 65536, false},
        {RPMB::TYPE_COUNTER_READ, 1, 2, false},
        {RPMB::TYPE_DATA_WRITE, 1, 2, false},
        {RPMB::TYPE_KEY_PROGRAM, 1, 1, false},
        {RPMB::TYPE_RESULT_READ, 1, 1, false},
        {RPMB::TYPE_DATA_READ, 1, 65535, true},
        {RPMB::TYPE_COUNTER_READ, 1, 1, true},
    };
    std::vector<Frame> rsp(65536);
    for (const auto& c : cases) {
        Frame req{};
        req.set_type(c.type);
        const Frame* const r = c.type ? &req : nullptr;
        errno = 0;
        EXPECT_EQ(sim.do_op(r, c.nreq, rsp.data(), c.nrsp), c.valid ? 0 : -1) << c.type;
        EXPECT_EQ(errno, c.valid ? 0 : EINVAL) << c.type << " " << c.nrsp;
        errno = 0;
        EXPECT_EQ(dev.do_op(r, c.nreq, rsp.data(), c.nrsp), -1) << c.type;
        EXPECT_EQ(errno, c.valid ? ioctl_errno : EINVAL) << c.type << " " << c.nrsp;
    }
    EXPECT_TRUE(dev.open("/dev/null"));
    EXPECT_TRUE(dev.close());
    EXPECT_FALSE(dev.close());
}

// Answers every operation with frames of one type.
class CannedRPMB : public RPMB {
  public:
    int do_op(const Frame*, unsigned long, Frame* rsp, unsigned long nrsp) override {
        for (unsigned long i = 0; i < nrsp; ++i)
            rsp[i].set_type(RPMB::TYPE_DATA_WRITE_RSP);
        return 0;
    }
};

TEST(RPMBOperations, AnswerOfAnotherTypeIsRefused) {
    CannedRPMB rpmb;
    std::vector<unsigned char> data(256);
    unsigned int counter = 0;
    errno = 0;
    EXPECT_EQ(rpmb.read(0, 1, nullptr, data.data(), nullptr), -1);
    EXPECT_EQ(errno, EILSEQ);
    errno = 0;
    EXPECT_EQ(rpmb.read_counter(nullptr, &counter, nullptr), -1);
    EXPECT_EQ(errno, EILSEQ);
}

}  // namespace
