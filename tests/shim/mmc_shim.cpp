// An eMMC RPMB for machines without one, preloaded into a process under test:
//
//   LD_PRELOAD=.../libmmc_shim.so ZEL_MMC_SHIM_RPMB=BASE [ZEL_MMC_SHIM_NODE=NODE]
//   [ZEL_MMC_SHIM_LOG=FILE] program ...
//
// ZEL_MMC_SHIM_RPMB  base name of a simulated RPMB (BASE.key, BASE.wrctr, BASE.data, as
//                    made by `rpmbsim create`) that answers the frames; required.
// ZEL_MMC_SHIM_NODE  the character device node standing in for the RPMB device (any node
//                    that opens, e.g. `mknod NODE c 1 3`); only MMC_IOC_MULTI_CMD ioctls on
//                    that node are answered. Unset: every MMC_IOC_MULTI_CMD is answered.
// ZEL_MMC_SHIM_LOG   file to which one line is appended per answered ioctl and one when
//                    the process exits:
//                      ioctl cmds=N type=0xTTTT nreq=N nrsp=N cap_eff=HEX rc=0
//                      ioctl ... error=TEXT        (the ioctl failed)
//                      exit cap_eff=HEX
//                    cap_eff is the process's effective capability mask (CapEff).
//
// Every field of every command is checked against what the card driver expects of an
// RPMB operation; a deviation fails the ioctl with EPROTO and is reported on stderr. Like
// the kernel, the shim refuses with EPERM unless CAP_SYS_RAWIO is effective. Other ioctls
// go to the C library.
//
// `flags` is checked as an eMMC host reads it: its native response type must be R1 and its
// command type ADTC (0x35), as the card answers CMD25 and CMD18; the SPI response bits
// (MMC_RSP_SPI_*, bits 7 to 10), which only an SPI host looks at, are ignored, so mmc-utils'
// 0xb5 (MMC_RSP_SPI_R1 | MMC_RSP_R1 | MMC_CMD_ADTC) is taken like 0x35. Bits above them
// mean nothing to any host and are refused. Not modelled: SPI hosts; what a real host
// would still do with another native response type (R1B's busy wait, no response at all);
// the SET_BLOCK_COUNT (CMD23) the driver sends before each command, with the reliable-write
// bit copied from `write_flag`; the partition switch.

#include <dlfcn.h>
#include <linux/capability.h>
#include <linux/mmc/ioctl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "RPMBSimulator.h"

namespace {

using Frame = RPMB::Frame;

// MMC_RSP_R1 | MMC_CMD_ADTC, and MMC_RSP_SPI_S1 | _S2 | _B4 | _BUSY (not in the uapi header).
constexpr unsigned int kFlagsR1Adtc = 0x35;
constexpr unsigned int kFlagsSpiResponse = 0x780;

void log_line(const std::string& line) {
    const char* const path = getenv("ZEL_MMC_SHIM_LOG");
    if (path && *path)
        std::ofstream(path, std::ios::app) << line << '\n';
}

// The effective capability mask as /proc shows it, or "unknown".
std::string cap_eff() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("CapEff:\t", 0) == 0)
            return line.substr(8);
    }
    return "unknown";
}

bool is_shim_node(int fd) {
    const char* const node = getenv("ZEL_MMC_SHIM_NODE");
    struct stat want, have;
    return !node || !*node ||
           (stat(node, &want) == 0 && fstat(fd, &have) == 0 && want.st_dev == have.st_dev &&
            want.st_ino == have.st_ino);
}

// Why `cmd` is not the expected command, or empty when it is.
std::string check_cmd(const mmc_ioc_cmd& cmd, const char* name, unsigned int write_flag,
                      unsigned int opcode, unsigned int max_blocks) {
    mmc_ioc_cmd expected{};
    expected.write_flag = static_cast<int>(write_flag);
    expected.opcode = opcode;
    expected.flags = kFlagsR1Adtc | (cmd.flags & kFlagsSpiResponse);
    expected.blksz = 512;
    expected.blocks = cmd.blocks;
    expected.data_ptr = cmd.data_ptr;
    if (cmd.blocks >= 1 && cmd.blocks <= max_blocks && cmd.data_ptr &&
        memcmp(&cmd, &expected, sizeof(cmd)) == 0)
        return "";
    char why[256];
    snprintf(why, sizeof(why),
             "%s: write_flag=0x%x opcode=%u arg=0x%x flags=0x%x blksz=%u blocks=%u data_ptr=%s "
             "is_acmd=%d, wanted write_flag=0x%x opcode=%u arg=0 flags=0x35 (SPI bits aside) "
             "blksz=512 blocks=1..%u, other fields zero",
             name, static_cast<unsigned>(cmd.write_flag), cmd.opcode, cmd.arg, cmd.flags, cmd.blksz,
             cmd.blocks, cmd.data_ptr ? "set" : "null", cmd.is_acmd, write_flag, opcode,
             max_blocks);
    return why;
}

Frame* frames(const mmc_ioc_cmd& cmd) {
    return reinterpret_cast<Frame*>(static_cast<uintptr_t>(cmd.data_ptr));
}

// Checks one multi-command operation; on success `op` describes it for the log.
std::string check_op(const mmc_ioc_multi_cmd* multi, std::string* op) {
    if (!multi)
        return "null argument";
    const mmc_ioc_cmd* const cmds = multi->cmds;
    const unsigned int n = static_cast<unsigned>(multi->num_of_cmds);
    if (n != 2 && n != 3)
        return "num_of_cmds " + std::to_string(n) + ", wanted 2 or 3";
    std::string why = check_cmd(cmds[0], "request", n == 3 ? 0x80000001 : 1, 25, 65535);
    if (!why.empty())
        return why;
    const uint16_t type = frames(cmds[0])[0].type();
    Frame result_read{};
    result_read.set_type(RPMB::TYPE_RESULT_READ);
    if (n == 3) {
        why = check_cmd(cmds[1], "result read request", 1, 25, 1);
        if (why.empty())
            why = check_cmd(cmds[2], "response", 0, 18, 1);
        if (why.empty() && memcmp(frames(cmds[1]), &result_read, sizeof(Frame)) != 0)
            why = "result read request frame is not all zero with type 0x0005";
        if (why.empty() && type != RPMB::TYPE_DATA_WRITE)
            why = "three commands for request type " + std::to_string(type);
    } else {
        why = check_cmd(cmds[1], "response", 0, 18, type == RPMB::TYPE_COUNTER_READ ? 1 : 65535);
        if (why.empty() && type != RPMB::TYPE_COUNTER_READ && type != RPMB::TYPE_DATA_READ)
            why = "two commands for request type " + std::to_string(type);
    }
    char text[128];
    snprintf(text, sizeof(text), "cmds=%u type=0x%04x nreq=%u nrsp=%u", n, type, cmds[0].blocks,
             cmds[n - 1].blocks);
    *op = text;
    return why;
}

// The error of a failed operation, with its text in `why`, or 0.
int run_op(mmc_ioc_multi_cmd* multi, const std::string& caps, std::string* op, std::string* why) {
    *why = check_op(multi, op);
    if (!why->empty())
        return EPROTO;
    if (!(strtoull(caps.c_str(), nullptr, 16) & (1ull << CAP_SYS_RAWIO))) {
        *why = "CAP_SYS_RAWIO is not effective";
        return EPERM;
    }
    const char* const base = getenv("ZEL_MMC_SHIM_RPMB");
    RPMBSimulator sim;
    if (!base || !sim.open(base)) {
        *why = std::string("cannot open simulated RPMB '") + (base ? base : "") + "'";
        return EIO;
    }
    const mmc_ioc_cmd& last = multi->cmds[multi->num_of_cmds - 1];
    if (sim.do_op(frames(multi->cmds[0]), multi->cmds[0].blocks, frames(last), last.blocks) == 0)
        return 0;
    const int error = errno;
    *why = std::string("simulator: ") + strerror(error);
    return error;
}

__attribute__((destructor)) void log_exit() {
    log_line("exit cap_eff=" + cap_eff());
}

}  // namespace

extern "C" int ioctl(int fd, unsigned long request, ...) __THROW {
    va_list args;
    va_start(args, request);
    void* const arg = va_arg(args, void*);
    va_end(args);
    if (request != MMC_IOC_MULTI_CMD || !is_shim_node(fd)) {
        using Ioctl = int (*)(int, unsigned long, ...);
        static const auto real = reinterpret_cast<Ioctl>(dlsym(RTLD_NEXT, "ioctl"));
        return real(fd, request, arg);
    }
    std::string op = "cmds=?", why;
    const std::string caps = cap_eff();
    const int error = run_op(static_cast<mmc_ioc_multi_cmd*>(arg), caps, &op, &why);
    log_line("ioctl " + op + " cap_eff=" + caps + (error ? " error=" + why : " rc=0"));
    if (!error)
        return 0;
    fprintf(stderr, "mmc_shim: %s\n", why.c_str());
    errno = error;
    return -1;
}
