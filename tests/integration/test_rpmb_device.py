"""The eMMC RPMB device code path, with the MMC ioctl answered by the preloaded shim from a
simulated RPMB: the commands sent, the capability raised only around them, and the frames
and MACs that come back."""

import os
import subprocess
import sys

import pytest

from rpmbframes import (DATA_READ, NO_MMC_EMULATION, READ_RSP, SHIM, WRITE_RSP, fields, frame,
                        mac, make_simulator, random_blocks, relay, rpmbsim, write_request)

pytestmark = [pytest.mark.root, pytest.mark.native(NO_MMC_EMULATION)]

CONTENTS = random_blocks(512)
RAWIO_ONLY, NO_CAPS = "0000000000020000", "0000000000000000"


class Device:
    def __init__(self, directory):
        self.base = make_simulator(directory, CONTENTS)
        self.node = directory / "mmcblk0rpmb"
        os.mknod(self.node, 0o600 | 0o020000, os.makedev(1, 3))  # opens like /dev/null
        self.log = directory / "shim.log"
        self.key = directory / "given.key"
        self.env = dict(os.environ, LD_PRELOAD=str(SHIM), ZEL_MMC_SHIM_RPMB=str(self.base),
                        ZEL_MMC_SHIM_NODE=str(self.node), ZEL_MMC_SHIM_LOG=str(self.log),
                        ASAN_OPTIONS="verify_asan_link_order=0")

    def run(self, *args):
        return rpmbsim(*args, "--key-file", self.key, env=self.env)

    def log_lines(self):
        lines = self.log.read_text().splitlines() if self.log.exists() else []
        self.log.unlink(missing_ok=True)
        return lines


@pytest.fixture
def device(tmp_path):
    return Device(tmp_path)


def served(op):
    return f"ioctl {op} cap_eff={RAWIO_ONLY} rc=0"


def test_counter_read_tool_write_and_raw_two_block_write_and_read(device):
    run = device.run("info", device.node)
    assert run.stdout == b"counter: 0\n", run.stderr
    data = device.base.parent / "block"
    data.write_bytes(random_blocks(1))
    run = device.run("write", device.node, 1, data)
    assert run.stdout == b"wrote block 1, counter now 1\n", run.stderr
    assert (device.base.parent / "rpmb.data").read_bytes()[256:512] == data.read_bytes()

    data = random_blocks(2)
    (rsp,) = relay(device.node, write_request(data, 1, 6), 1, env=device.env)
    assert fields(rsp) == (2, 6, 0, 0, WRITE_RSP) and rsp[196:228] == mac([rsp])
    nonce = os.urandom(16)
    rsp = relay(device.node, [frame(DATA_READ, nonce=nonce, address=6)], 2, env=device.env)
    assert [fields(f)[1:] for f in rsp] == [(6, 2, 0, READ_RSP)] * 2
    assert b"".join(f[228:484] for f in rsp) == data and rsp[1][196:228] == mac(rsp)
    counter, done = served("cmds=2 type=0x0002 nreq=1 nrsp=1"), f"exit cap_eff={NO_CAPS}"
    assert device.log_lines() == [counter, done, counter,
                                  served("cmds=3 type=0x0003 nreq=1 nrsp=1"), done,
                                  served("cmds=3 type=0x0003 nreq=2 nrsp=1"), done,
                                  served("cmds=2 type=0x0004 nreq=1 nrsp=2"), done]


# Sends one counter read through ioctl(MMC_IOC_MULTI_CMD) with one field changed.
IOCTL_SCRIPT = r"""
import ctypes, errno, os, sys

class Cmd(ctypes.Structure):
    _fields_ = [("write_flag", ctypes.c_uint32), ("is_acmd", ctypes.c_int),
                ("opcode", ctypes.c_uint32), ("arg", ctypes.c_uint32),
                ("response", ctypes.c_uint32 * 4), ("flags", ctypes.c_uint),
                ("blksz", ctypes.c_uint), ("blocks", ctypes.c_uint),
                ("postsleep_min_us", ctypes.c_uint), ("postsleep_max_us", ctypes.c_uint),
                ("data_timeout_ns", ctypes.c_uint), ("cmd_timeout_ms", ctypes.c_uint),
                ("pad", ctypes.c_uint32), ("data_ptr", ctypes.c_uint64)]

class Multi(ctypes.Structure):
    _fields_ = [("num_of_cmds", ctypes.c_uint64), ("cmds", Cmd * 2)]

req, rsp = ctypes.create_string_buffer(512), ctypes.create_string_buffer(1024)
req[511] = 2
multi = Multi(2)
for cmd, flag, opcode, buf in zip(multi.cmds, (1, 0), (25, 18), (req, rsp)):
    cmd.write_flag, cmd.opcode, cmd.flags, cmd.blksz, cmd.blocks = flag, opcode, 0x35, 512, 1
    cmd.data_ptr = ctypes.addressof(buf)
field, index, value = sys.argv[1], int(sys.argv[2]), int(sys.argv[3], 0)
setattr(multi.cmds[index] if field != "num_of_cmds" else multi, field, value)
libc = ctypes.CDLL(None, use_errno=True)
fd = os.open(sys.argv[4], os.O_RDWR)
rc = libc.ioctl(fd, ctypes.c_ulong(0xC008B301), ctypes.byref(multi))
print(errno.errorcode.get(ctypes.get_errno(), "0") if rc else "ok")
"""


@pytest.mark.parametrize("field,index,value,outcome", [
    ("blocks", 0, 1, "ok"),
    ("flags", 0, 0x15, "EPROTO"),
    ("flags", 1, 0x7b5, "ok"),  # the SPI response bits, as mmc-utils sends them
    ("write_flag", 0, 0x80000001, "EPROTO"),
    ("opcode", 0, 18, "EPROTO"),
    ("arg", 1, 1, "EPROTO"),
    ("cmd_timeout_ms", 1, 100, "EPROTO"),
    ("num_of_cmds", 0, 1, "EPROTO"),
])
def test_shim_refuses_any_other_command(device, field, index, value, outcome):
    run = subprocess.run([sys.executable, "-c", IOCTL_SCRIPT, field, str(index), hex(value),
                          str(device.node)], env=device.env, capture_output=True, text=True,
                         timeout=30)
    assert run.stdout.strip() == outcome, run.stderr
    assert ("mmc_shim: " in run.stderr) == (outcome != "ok")


def test_shim_refuses_without_cap_sys_rawio(device):
    run = subprocess.run(["setpriv", "--bounding-set=-sys_rawio", sys.executable, "-c",
                          IOCTL_SCRIPT, "blocks", "0", "1", str(device.node)], env=device.env,
                         capture_output=True, text=True, timeout=30)
    assert run.stdout.strip() == "EPERM", run.stderr
    assert "mmc_shim: CAP_SYS_RAWIO is not effective" in run.stderr
