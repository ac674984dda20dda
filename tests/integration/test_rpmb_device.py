# The eMMC RPMB device code path, with the MMC ioctl answered by the preloaded shim from a
# simulated RPMB: the commands sent, the capability raised only around them, and the frames
# and MACs that come back.

import os
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
