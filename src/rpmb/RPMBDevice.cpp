#include "RPMBDevice.h"

#include <fcntl.h>
#include <linux/mmc/ioctl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "ProcessCaps.h"

namespace {

// Command fields of the card's RPMB transfers.
constexpr unsigned int MMC_WRITE = 1;
constexpr unsigned int MMC_RELIABLE_WRITE = 0x80000001;  // write plus the reliable-write bit
constexpr unsigned int MMC_READ = 0;
constexpr unsigned int MMC_WRITE_MULTIPLE_BLOCK = 25;
constexpr unsigned int MMC_READ_MULTIPLE_BLOCK = 18;
// R1 response with CRC and opcode check, addressed data transfer.
constexpr unsigned int MMC_RPMB_FLAGS = 0x35;

void set_cmd(mmc_ioc_cmd& cmd, unsigned int write_flag, unsigned int opcode,
             const RPMB::Frame* frames, unsigned long count) {
    memset(&cmd, 0, sizeof(cmd));
    cmd.write_flag = static_cast<int>(write_flag);
    cmd.opcode = opcode;
    cmd.arg = 0;
    cmd.flags = MMC_RPMB_FLAGS;
    cmd.blksz = sizeof(RPMB::Frame);
    cmd.blocks = static_cast<unsigned int>(count);
    mmc_ioc_cmd_set_data(cmd, frames);
}

}  // namespace

RPMBDevice::~RPMBDevice() {
    // Only ever closes an already closed descriptor, which does nothing (see the header);
    // the errno of whatever failed before the object was dropped is kept for its report.
    const int saved_errno = errno;
    if (fd == -1)
        close();
    errno = saved_errno;
}

bool RPMBDevice::open(const char* path) {
    fd = ::open(path, O_RDWR | O_NOCTTY);
    return fd >= 0;
}

bool RPMBDevice::close() {
    const int rc = ::close(fd);
    fd = -1;
    return rc == 0;
}

int RPMBDevice::do_op(const Frame* req, unsigned long nreq, Frame* rsp, unsigned long nrsp) {
    if (!req || !rsp || nreq < 1 || nreq > MAX_FRAMES || nrsp < 1 || nrsp > MAX_FRAMES) {
        errno = EINVAL;
        return -1;
    }
    memset(static_cast<void*>(rsp), 0, nrsp * sizeof(Frame));

    // The header and its trailing array of up to three commands.
    alignas(mmc_ioc_multi_cmd) unsigned char
        storage[sizeof(mmc_ioc_multi_cmd) + 3 * sizeof(mmc_ioc_cmd)] = {};
    mmc_ioc_multi_cmd* const multi = new (storage) mmc_ioc_multi_cmd{};
    Frame result_read{};

    switch (req[0].type()) {
        case TYPE_DATA_WRITE:
            if (nrsp != 1) {
                errno = EINVAL;
                return -1;
            }
            result_read.set_type(TYPE_RESULT_READ);
            set_cmd(multi->cmds[0], MMC_RELIABLE_WRITE, MMC_WRITE_MULTIPLE_BLOCK, req, nreq);
            set_cmd(multi->cmds[1], MMC_WRITE, MMC_WRITE_MULTIPLE_BLOCK, &result_read, 1);
            set_cmd(multi->cmds[2], MMC_READ, MMC_READ_MULTIPLE_BLOCK, rsp, 1);
            multi->num_of_cmds = 3;
            break;
        case TYPE_COUNTER_READ:
        case TYPE_DATA_READ:
            if (req[0].type() == TYPE_COUNTER_READ && nrsp != 1) {
                errno = EINVAL;
                return -1;
            }
            set_cmd(multi->cmds[0], MMC_WRITE, MMC_WRITE_MULTIPLE_BLOCK, req, nreq);
            set_cmd(multi->cmds[1], MMC_READ, MMC_READ_MULTIPLE_BLOCK, rsp, nrsp);
            multi->num_of_cmds = 2;
            break;
        default:
            errno = EINVAL;
            return -1;
    }
    // The capability is effective only for the ioctl; restoring it must not clobber the
    // ioctl's errno.
    int rc;
    int saved_errno;
    {
        const AutoProcessCaps caps({CAP_SYS_RAWIO});
        rc = ioctl(fd, MMC_IOC_MULTI_CMD, multi);
        saved_errno = errno;
    }
    errno = saved_errno;
    return rc == 0 ? 0 : -1;
}
