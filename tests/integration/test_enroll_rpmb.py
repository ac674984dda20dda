# "emmc-rpmb-csr" enrollments on a simulated RPMB and, as root, on the shim's device node.

import base64
import json
import os
import re
import shutil
import stat
import struct
import subprocess
import time
from datetime import datetime, timedelta, timezone

import pytest

import zeltest
from enrollserver import EnrollServer, Fault
from enrollserver.rpmb import b64, rpmb_mac
from rpmbframes import (DATA_READ, KEY, READ_RSP, WRITE_RSP, fields, frame, mac, make_simulator,
                        relay, rpmbsim, write_request)

PROTO = "emmc-rpmb-csr"
DONE = "enrollment completed successfully"
DEVID = b"ZEL-DEVICE-ID:SN-RPMB-1".ljust(256, b"\0")
PATHS = ["/enroll/initiate", "/enroll/dataAuthenticate", "/enroll/dataVerify",
         "/enroll/acknowledge"]
SHIM = zeltest.BUILD_DIR / "tests" / "shim" / "libmmc_shim.so"
HOUR, DAY = 3600, 86400


class Rpmb:

    def __init__(self, root):
        self.base = make_simulator(root, DEVID + bytes(511 * 256))
        self.wrctr = root / "rpmb.wrctr"

    counter = property(lambda self: struct.unpack(">I", self.wrctr.read_bytes())[0],
                       lambda self, value: self.wrctr.write_bytes(struct.pack(">I", value)))

    def block(self, n):
        return (self.base.parent / "rpmb.data").read_bytes()[n * 256:(n + 1) * 256]


@pytest.fixture
def rpmb(sandbox):
    return Rpmb(sandbox.root)


@pytest.fixture
def rpmb_server(ca):
    srv = EnrollServer(ca, protocols=(PROTO,)).start()
    srv.protocol(PROTO).keys["SN-TEST-1"] = KEY
    srv.protocol(PROTO).expected_data = DEVID
    yield srv
    srv.stop()


@pytest.fixture
def start(sandbox, start_daemon, rpmb_server, rpmb):
    # The daemon on `rpmb`; with a `counter`, first a status file holding it and writes `ago`
    # seconds back, and the card at `device` (default: the same counter).
    def start(*extra, counter=None, ago=(), device=None, rpmb_path=rpmb.base, **kwargs):
        if counter is not None:
            now = datetime.now(timezone.utc)
            stamps = [(now - timedelta(seconds=s)).strftime("%Y-%m-%dT%H:%M:%SZ") for s in ago]
            sandbox.status_file.write_text(json.dumps({"enrolled": False, "enabled": True, "rpmb": {
                "writeCounter": counter, "writeTStamps": stamps}}))
            rpmb.counter = counter if device is None else device
        return start_daemon(sandbox.args(f"--rpmb={rpmb_path}", f"--protocol={PROTO}", "--retry=1",
                                         *extra, base_url=rpmb_server.url), **kwargs)
    return start


def status(sandbox):
    return json.loads(sandbox.status_file.read_text())


@pytest.mark.parametrize("stored, device", [(0, 0), pytest.param(3, 7, marks=pytest.mark.arm64),
                                            (499, 499)])
def test_rpmb_enrollment(sandbox, start, rpmb_server, rpmb, stored, device):
    # The device's counter is saved before "/dataAuthenticate"; the write counts once.
    rpmb_server.inject("/dataAuthenticate", Fault.delay(0.5))
    daemon = start(counter=stored, device=device)
    rpmb_server.wait_for_request("/dataAuthenticate")
    assert status(sandbox)["rpmb"]["writeCounter"] == device
    daemon.wait_for_message(DONE, timeout=15)

    assert [r.path for r in rpmb_server.requests] == PATHS
    auth = rpmb_server.requests[1].json
    assert list(auth) == ["cbData", "rpmbReadResult", "rpmbSignAuthRequest"]
    sign = auth["rpmbSignAuthRequest"]
    assert list(sign) == ["sdata", "dataType", "writeCounter", "writeCounterHmac", "startBlock"]
    assert (sign["dataType"], sign["writeCounter"], sign["startBlock"]) == ("CSR", device, 1)
    assert list(rpmb_server.requests[2].json) == ["cbData", "rpmbReadResult"]

    written = rpmb_server.protocol(PROTO).authorised[-1][2]
    assert (rpmb.counter, rpmb.block(0), rpmb.block(1)) == (device + 1, DEVID, written)
    state = status(sandbox)
    assert (state["enrolled"], state["rpmb"]["writeCounter"], len(state["rpmb"]["writeTStamps"])
            ) == (True, device + 1, 1)

    # The diagnosis reads the counter and block 0 afresh, with a MAC over its own nonce.
    reply = zeltest.enroller_call("diagnose").stdout
    assert f"'counter': <uint32 {device + 1}>" in reply, reply
    found = re.findall(r"'(data|nonce|mac)': <'([^']*)'>", reply)
    devid = {k: base64.b64decode(v) for k, v in found}
    assert (devid["data"], devid["mac"]) == (
        DEVID, rpmb_mac(KEY, [DEVID], devid["nonce"], 0, 0, 1, 0, 0x0400))
    rpmb.wrctr.write_bytes(b"")  # a counter the card fails to read
    reply = zeltest.enroller_call("diagnose").stdout
    assert "'counter'" not in reply and "'devid'" in reply
    daemon.wait_for_message("failed to read RPMB write counter for diagnosis: RPMB failure (6)")


@pytest.mark.arm64
@pytest.mark.parametrize("daemon_build", ["target", "native"])
def test_files_read_alike_by_either_build(sandbox, start, daemon_build):
    # The status file and service.json that one build's daemon writes read the same with
    # the zelenrollctl of either build (a cross build's against a native one).
    directory, runner = {"target": zeltest.TARGET, "native": zeltest.NATIVE}[daemon_build]
    daemon = start(counter=7, ago=[2 * DAY, 20 * DAY, 200 * DAY],
                   binary=directory / "src" / "zelenrolld", runner=runner)
    daemon.wait_for_message(DONE, timeout=30)
    reads = []
    for ctl_build in (zeltest.NATIVE, zeltest.TARGET):
        reads.append(json.loads(subprocess.check_output(zeltest.build_command(
            ctl_build, "tools/zelenrollctl/zelenrollctl", "status", "--json",
            f"--status-file={sandbox.status_file}", f"--services-dir={sandbox.services_dir}",
            f"--key={sandbox.key}"), timeout=60)))
        # the only value that depends on when it is read
        assert reads[-1]["certificate"].pop("daysLeft") in (364, 365)
    assert reads[0] == reads[1]
    state, cert = reads[0]["statusFile"], reads[0]["certificate"]
    assert state["enrolled"] and state["lastEnrolledTStamp"] and state["rpmb"]["writeCounter"] == 8
    assert [w["count"] for w in state["rpmb"]["writes"]] == [1, 2, 3, 4]
    assert cert["present"] and cert["matchesKey"] and "CN=SN-TEST-1" in cert["subject"]


LIMIT = (r"reached RPMB write limit \(%d >= %d\) over last %d seconds, one slot will free in "
         r"%s seconds")


@pytest.mark.parametrize("counter, ago, allowed, warning", [
    # stored counter, write times (seconds ago), writes still allowed, warning (regex)
    (500, [], 0, re.escape("RPMB reached maximum allowed number of writes (500 >= 500), "
                           "aborting data authenticate request")),
    (10, [HOUR * i + 60 for i in range(10)], 0, LIMIT % (10, 10, DAY, "539[0-9]{2}")),
    (20, [HOUR * (12 * i + 1) for i in range(20)], 0, LIMIT % (20, 20, 10 * DAY, "[0-9]+")),
    (7, [HOUR * i + 60 for i in range(7)], 3, LIMIT % (10, 10, DAY, "[0-9]+")),
    (17, [DAY * 2 + HOUR * i for i in range(17)], 3, LIMIT % (20, 20, 10 * DAY, "[0-9]+")),
])
def test_rpmb_write_guards(sandbox, start, rpmb_server, rpmb, counter, ago, allowed, warning):
    # A worn or busy RPMB is not written: no "/dataAuthenticate", the next try much later. A
    # server that answers every "/dataVerify" with one more write gets no more than allowed.
    rpmb_server.protocol(PROTO).endless_writes = True
    daemon = start("--debug", counter=counter, ago=ago)
    daemon.wait_for_log(r": " + warning + "$", timeout=30)
    if not allowed:
        daemon.wait_for_log(r"scheduling a retry in (86400|[0-9]{4,}) secs$", timeout=2)
        time.sleep(2.5)
        assert [r.path for r in rpmb_server.requests] == PATHS[:1]
    assert rpmb.counter == counter + allowed == status(sandbox)["rpmb"]["writeCounter"]


def test_worn_rpmb_is_never_written(sandbox, start, rpmb_server, rpmb):
    # Not even a server that asks for the write straight away gets a worn RPMB written.
    rpmb_server.inject("/initiate", Fault.json({
        "status": "dataVerifyRequired", "enrollmentProtocol": PROTO, "cbData": "x",
        "rpmbSignAuthorizer": {"data": b64(bytes(256)), "hmac": b64(bytes(32))}}))
    daemon = start(counter=501)
    daemon.wait_for_log(re.escape(
        "bool Enroller::rpmb_write(const RPMBSignAuthorizer*, const char*): assertion "
        "'status.rpmb.writeCounter <= MAX_RPMB_WRITE_COUNTER' failed"), timeout=10)
    daemon.wait_for_log(re.escape("RPMB reached maximum allowed number of writes (501 >= 500)"),
                        timeout=10)
    assert rpmb.counter == 501 and status(sandbox)["rpmb"]["writeCounter"] == 501


WRITE_REFUSED = ("failed RPMB write of 1 blocks @ 1 for dataVerifyRequired enroll response: "
                 "RPMB operation failed with code 2")


# the card checks the MAC, which covers the counter, before the counter itself
@pytest.mark.parametrize("fault, warning", [
    ("bad_mac", WRITE_REFUSED), ("stale_counter", WRITE_REFUSED),
    ("nonce_mismatch", "request failed with status code: 403, code: RPMBAuthenticationException")])
def test_refused_rpmb_proof_starts_over(sandbox, start, rpmb_server, rpmb, fault, warning):
    # No "/dataVerify" and no write; the next attempt starts over and completes.
    rpmb_server.protocol(PROTO).faults = [fault]
    daemon = start()
    daemon.wait_for_log(re.escape(warning), timeout=10)
    daemon.wait_for_message(DONE, timeout=15)
    assert [r.path for r in rpmb_server.requests] == PATHS[:2] + PATHS
    assert rpmb.counter == 1 and status(sandbox)["rpmb"]["writeCounter"] == 1


@pytest.mark.arm64
@pytest.mark.parametrize("blocks", [2**32, 70000, -1])
def test_hostile_read_size_is_refused(start, rpmb_server, blocks):
    # A read no device could answer is refused before anything is allocated, every time.
    rpmb_server.protocol(PROTO).nr_blocks = blocks
    daemon = start()
    warning = (f"failed RPMB read of {blocks % 2**64} blocks @ 0 for dataAuthRequired enroll "
               f"response: Invalid argument (22)")
    daemon.wait_for_message(warning, timeout=10)
    rss = int(daemon.status()["VmRSS"].split()[0])
    assert zeltest.wait_until(lambda: daemon.log.count(re.escape(warning)) >= 4, 20)
    assert daemon.running_pid() and int(daemon.status()["VmRSS"].split()[0]) < rss + 2048
    assert {r.path for r in rpmb_server.requests} == {PATHS[0]}


def test_missing_rpmb_is_opened_again_next_time(sandbox, start, rpmb_server):
    daemon = start(rpmb_path=sandbox.root / "none")
    warning = (f"failed to open simulated RPMB with base name '{sandbox.root}/none': "
               "No such file or directory (2)")
    assert zeltest.wait_until(lambda: daemon.log.count(re.escape(warning)) >= 2, 10)
    assert rpmb_server.requests == []


def shim_log(path):
    # A shim log in short: each ioctl's request type, made with CAP_SYS_RAWIO alone effective
    # and answered, and "x" for each exit with no capability left.
    text = re.sub(r"ioctl cmds=\d type=0x000(\d) nreq=\d+ nrsp=\d+ cap_eff=0000000000020000 rc=0\n",
                  r"\1", path.read_text())
    return text.replace("exit cap_eff=0000000000000000\n", "x")


class MmcUtils:
    # A simulated RPMB in `root` behind the shim's device node, and mmc-utils' `mmc rpmb` and
    # rpmbsim on that node: clients of the RPMB written by others. rpmbsim's ioctls are logged
    # to check that it raises CAP_SYS_RAWIO around each; holding no other capability, it
    # writes only to `scratch`, a directory root owns.

    def __init__(self, root, scratch):
        self.rpmb, self.node, self.key = Rpmb(root), root / "mmcblk0rpmb", root / "given.key"
        os.mknod(self.node, 0o600 | stat.S_IFCHR, os.makedev(1, 3))
        self.shim = {"LD_PRELOAD": str(SHIM), "ZEL_MMC_SHIM_RPMB": str(self.rpmb.base),
                     "ZEL_MMC_SHIM_NODE": str(self.node)}
        self.scratch, self.log = scratch, scratch / "rpmbsim.log"
        self.tool_env = dict(os.environ, **self.shim, ZEL_MMC_SHIM_LOG=str(self.log),
                             ASAN_OPTIONS="verify_asan_link_order=0")

    def __call__(self, *args, tool=False):
        # `mmc rpmb ARGS`, or with `tool` `rpmbsim ARGS` with the key; the output
        run = rpmbsim(*args, "--key-file", self.key, env=self.tool_env) if tool else subprocess.run(
            ["mmc", "rpmb", *map(str, args)], env=dict(os.environ, **self.shim),
            capture_output=True, timeout=30)
        assert run.returncode == 0, run.stderr
        return run.stdout

    def read(self, n):
        # The counter and block n as mmc-utils and rpmbsim read them (each checking the MAC).
        text = self("read-counter", self.node).decode()
        counter = int(re.fullmatch(r"Counter value: (0x[0-9a-f]{8})\n", text)[1], 16)
        assert self("info", self.node, tool=True) == f"counter: {self.rpmb.counter}\n".encode()
        mine, theirs = self.scratch / "mmc.out", self.scratch / "rpmbsim.out"
        mine.unlink(missing_ok=True)  # mmc-utils appends to an existing file
        self("read-block", self.node, n, 1, mine, self.key)
        self("read", self.node, n, "--out", theirs, tool=True)
        assert mine.read_bytes() == theirs.read_bytes() == self.rpmb.block(n)
        return counter, theirs.read_bytes()


@pytest.mark.root
@pytest.mark.native("qemu-user does not translate the MMC ioctl, and the shim answering it is a "
                    "native library preloaded into the program")
def test_rpmb_device_enrollment(nobody_sandbox, start_daemon, rpmb_server, tmp_path):
    # Through the MMC ioctl as nobody, with CAP_SYS_RAWIO raised only around each ioctl;
    # mmc-utils and rpmbsim, on the same node, agree on the RPMB before and after.
    box = nobody_sandbox
    mmc = MmcUtils(box.root, tmp_path)
    node, log, data = mmc.node, box.root / "shim.log", box.root / "block"
    assert mmc.read(0) == (0, DEVID)
    data.write_bytes(os.urandom(256))
    mmc("write-block", node, 2, data, mmc.key)  # the simulator checks mmc-utils' MAC
    assert mmc.read(2) == (1, data.read_bytes())
    # rpmbsim's raw two-block write and read through the node
    two = os.urandom(512)
    (rsp,) = relay(node, write_request(two, 1, 6), 1, env=mmc.tool_env)
    assert (fields(rsp), rsp[196:228]) == ((2, 6, 0, 0, WRITE_RSP), mac([rsp]))
    rsp = relay(node, [frame(DATA_READ, address=6)], 2, env=mmc.tool_env)
    assert [fields(f)[1:] for f in rsp] == [(6, 2, 0, READ_RSP)] * 2
    assert b"".join(f[228:484] for f in rsp) == two and rsp[1][196:228] == mac(rsp)
    assert shim_log(mmc.log) == "2x4x2x4x3x4x"  # one ioctl in each run
    log.touch()
    for path in (node, log, *box.root.glob("rpmb.*")):
        shutil.chown(path, "nobody")
    daemon = start_daemon(box.args(f"--rpmb={node}", f"--protocol={PROTO}", "--retry=1",
                                   user="nobody", base_url=rpmb_server.url),
                          env=dict(mmc.shim, ZEL_MMC_SHIM_LOG=str(log)))
    daemon.wait_for_message(DONE, timeout=15)
    assert daemon.stop() == 0
    for path in box.root.glob("rpmb.*"):
        shutil.chown(path, "root")  # for rpmbsim, which holds no CAP_DAC_OVERRIDE

    assert [r.path for r in rpmb_server.requests] == PATHS
    assert mmc.read(2) == (3, data.read_bytes())
    assert mmc.read(1) == (3, rpmb_server.protocol(PROTO).authorised[-1][2])
    assert shim_log(log) == "4234x"
