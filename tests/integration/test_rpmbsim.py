# The simulated RPMB through rpmbsim: MACs checked against an independent HMAC-SHA256,
# the file layout, provisioning and the tool's refusals.

import os
import re
import stat
import struct

import pytest

from rpmbframes import (COUNTER_READ, DATA_READ, DATA_WRITE, KEY, fields, frame, mac,
                        make_simulator, relay, rpmbsim, write_request)

pytestmark = pytest.mark.arm64  # frames and MACs of the target's rpmbsim, byte for byte

CONTENTS = os.urandom(256 * 512)


@pytest.fixture
def base(tmp_path):
    return make_simulator(tmp_path, CONTENTS)


def tampered(frames, index=0, offset=None, bits=1):
    if offset is not None:
        frames[index][offset] ^= bits
    return frames


NONCE = os.urandom(16)
W = lambda counter, address, blocks, *tamper: tampered(  # noqa: E731
    write_request(bytes(256 * blocks), counter, address), *tamper)
R = lambda address, *tamper, **f: tampered(  # noqa: E731
    [frame(DATA_READ, nonce=NONCE, address=address, **f)], *tamper)
C = lambda **f: [frame(COUNTER_READ, nonce=NONCE, **f)]  # noqa: E731
# stored counter, request frames (changed after the MAC is made), response frames, result;
# a write is checked against a MAC computed here
REFUSALS = {
    "write-one": (0, W(0, 7, 1), 1, 0),
    "write-two": (0, W(0, 8, 2), 1, 0),
    "write-wrong-mac": (0, W(0, 1, 1, 0, 227), 1, 2),
    "write-data-changed": (0, W(0, 2, 2, 1, 483, 0x80), 1, 2),
    "write-first-data-changed": (0, W(0, 2, 2, 0, 228), 1, 2),
    "write-stale-counter": (5, W(4, 1, 1), 1, 3),
    "write-two-blocks-odd": (0, W(0, 3, 2), 1, 4),
    "write-beyond-end": (0, W(0, 512, 1), 1, 4),
    "write-two-over-end": (0, W(0, 511, 2), 1, 4),
    "write-three-blocks": (0, W(0, 0, 3), 1, 1),
    "write-nonce": (0, W(0, 1, 1, 0, 484), 1, 1),
    "write-mac-on-first": (0, W(0, 2, 2, 0, 196), 1, 1),
    "write-block-count": (0, W(0, 1, 1, 0, 507, 3), 1, 1),
    "write-address-differs": (0, W(0, 2, 2, 1, 505), 1, 1),
    "write-expired": (0xFFFFFFFF, W(0xFFFFFFFF, 1, 1), 1, 0x85),
    "counter-address-set": (7, C(address=1), 1, 1),
    "counter-data-set": (7, C(data=bytes(9) + b"\1"), 1, 1),
    "counter-expired": (0xFFFFFFFF, C(), 1, 0x80),
    "counter-expired-and-invalid": (0xFFFFFFFF, C(result=1), 1, 0x81),
    "counter": (7, C(), 1, 0),
    "read-three": (0, R(5), 3, 0),
    "read-last-block": (0, R(511), 1, 0),
    "read-over-end": (0, R(511), 2, 4),
    "read-block-count-set": (0, R(0, block_count=1), 1, 1),
    "read-counter-set": (0, R(0, counter=1), 1, 1),
    "read-mac-set": (0, R(0, 0, 196), 1, 1),
}


@pytest.mark.parametrize("stored,requests,nrsp,result", REFUSALS.values(), ids=REFUSALS.keys())
def test_simulator_answers_with_result_and_mac(base, stored, requests, nrsp, result):
    (base.parent / "rpmb.wrctr").write_bytes(struct.pack(">I", stored))
    rsp = relay(base, requests, nrsp)
    _, address, _, _, kind = fields(requests[0])
    written = kind == DATA_WRITE and result == 0
    assert [fields(f)[3:] for f in rsp] == [(result, kind << 8)] * nrsp
    # the JEDEC MAC in the last frame only
    assert [f[196:228] for f in rsp] == [bytes(32)] * (nrsp - 1) + [mac(rsp)]
    if kind == DATA_READ:
        data = CONTENTS[address * 256:(address + nrsp) * 256] if result == 0 else bytes(
            256 * nrsp)
        assert b"".join(f[228:484] for f in rsp) == data
        assert [fields(f)[1:3] for f in rsp] == [(address, nrsp)] * nrsp
    else:
        assert fields(rsp[0])[:3] == (stored + written, address if kind == DATA_WRITE else 0, 0)
    assert kind == DATA_WRITE or [f[484:500] for f in rsp] == [NONCE] * nrsp
    after, sent = bytearray(CONTENTS), b"".join(f[228:484] for f in requests)
    if written:
        after[address * 256:address * 256 + len(sent)] = sent
    assert (base.parent / "rpmb.data").read_bytes() == after
    assert (base.parent / "rpmb.wrctr").read_bytes() == struct.pack(">I", stored + written)


def test_provisioning_round_trip(tmp_path):
    base, key_file, data_file = tmp_path / "dev", tmp_path / "server.key", tmp_path / "devid"
    assert rpmbsim("create", base, 2, "--new-key", key_file).returncode == 0
    assert stat.S_IMODE(key_file.stat().st_mode) == 0o600
    assert key_file.read_bytes() == (tmp_path / "dev.key").read_bytes() != KEY
    data = os.urandom(256)
    data_file.write_bytes(data)
    run = rpmbsim("write", base, 0, data_file)
    assert run.returncode == 0 and run.stdout == b"wrote block 0, counter now 1\n", run.stderr
    assert rpmbsim("read", base, 0, "--out", tmp_path / "back").returncode == 0
    assert (tmp_path / "back").read_bytes() == data
    dump = rpmbsim("read", base, 0, "--count", 2).stdout.decode().splitlines()
    assert len(dump) == 32 and dump[0].startswith("0000: " + data[:16].hex(" "))
    assert rpmbsim("info", base).stdout == b"counter: 1\nsize: 262144 bytes (1024 blocks)\n"
    (tmp_path / "dev.wrctr").write_bytes(b"\xff" * 4)  # expired
    assert rpmbsim("info", base).stdout.startswith(b"counter: 4294967295 (expired)\n")
    run = rpmbsim("write", base, 1, data_file)
    assert re.search(rb"device result 0x85 \(write failure, write counter expired\)", run.stderr)


@pytest.mark.parametrize("args,error", [
    (("create", "{d}/n", "0", "--key-file", "{d}/k32"), "bad size '0'"),
    (("create", "{d}/n", "1"), "create needs exactly one of --key-file and --new-key"),
    (("create", "{d}/n", "1", "--key-file", "{d}/k31"), "'{d}/k31' holds 31 bytes instead of 32"),
    (("create", "{d}/n", "1", "--key-file", "{d}/none"), "No such file or directory"),
    (("info", "{d}/none"), "cannot open simulated RPMB '{d}/none': No such file or directory"),
    (("info", "{d}/rpmb", "--key-file", "{d}/k32"), "the MAC of the counter read does not match"),
    (("read", "{d}/rpmb", "512"), "read failed: device result 0x04 (address failure)"),
    (("read", "{d}/rpmb", "0", "--count", "0"), "bad count 0 for block 0"),
    (("read", "{d}/rpmb", "65535", "--count", "2"), "bad count 2 for block 65535"),
    (("read", "{d}/rpmb", "x"), "bad block 'x'"),
    (("write", "{d}/rpmb", "0", "{d}/k31"), "'{d}/k31' holds 31 bytes instead of 256"),
    (("frames", "{d}/rpmb", "1"), "standard input must hold 1 to 65535 whole frames"),
    (("frobnicate", "{d}/rpmb"), "bad command line; see --help"),
])
def test_tool_refusals(base, args, error):
    d = base.parent
    (d / "k32").write_bytes(bytes(32))
    (d / "k31").write_bytes(bytes(31))
    run = rpmbsim(*(a.format(d=d) for a in args))
    text = run.stderr.decode()
    assert run.returncode == 1 and text.count("\n") == 1 and text.startswith("rpmbsim: "), text
    assert error.format(d=d) in text

