"""The simulated RPMB through rpmbsim: MACs checked against an independent HMAC-SHA256,
the file layout, provisioning and the tool's refusals."""

import os
import re
import stat

import pytest

from rpmbframes import (COUNTER_READ, COUNTER_RSP, DATA_READ, KEY, READ_RSP, WRITE_RSP, fields,
                        frame, mac, make_simulator, random_blocks, relay, rpmbsim,
                        write_request)

CONTENTS = random_blocks(512)


@pytest.fixture
def base(tmp_path):
    return make_simulator(tmp_path, CONTENTS)


def counter_of(base):
    nonce = os.urandom(16)
    (rsp,) = relay(base, [frame(COUNTER_READ, nonce=nonce)], 1)
    assert fields(rsp)[2:] == (0, 0, COUNTER_RSP)
    assert rsp[484:500] == nonce
    assert rsp[196:228] == mac([rsp])
    return fields(rsp)[0]


def test_counter_and_multi_block_read_carry_the_jedec_mac(base):
    assert counter_of(base) == 0
    nonce = os.urandom(16)
    rsp = relay(base, [frame(DATA_READ, nonce=nonce, address=5)], 3)
    for i, f in enumerate(rsp):
        assert fields(f)[1:] == (5, 3, 0, READ_RSP)
        assert f[228:484] == CONTENTS[(5 + i) * 256:(6 + i) * 256]
        assert f[484:500] == nonce
    assert rsp[2][196:228] == mac(rsp)
    assert rsp[0][196:228] == bytes(32) == rsp[1][196:228]


@pytest.mark.parametrize("address,blocks", [(7, 1), (8, 2)])
def test_write_with_an_independent_mac_is_accepted_and_answered_with_one(base, address, blocks):
    data = random_blocks(blocks)
    (rsp,) = relay(base, write_request(data, 0, address), 1)
    assert fields(rsp) == (1, address, 0, 0, WRITE_RSP)
    assert rsp[196:228] == mac([rsp])
    stored = (base.parent / "rpmb.data").read_bytes()
    assert stored[address * 256:(address + blocks) * 256] == data
    assert (base.parent / "rpmb.wrctr").read_bytes() == b"\0\0\0\1"
    assert counter_of(base) == 1


def test_a_flipped_bit_anywhere_in_the_mac_input_is_refused(base):
    data = random_blocks(2)
    for offset in list(range(228, 512, 9)) + [483, 484, 499, 503, 505, 507, 509, 511]:
        for index in (0, 1):
            frames = write_request(data, 0, 10)
            frames[index][offset] ^= 0x10
            rsp = relay(base, frames, 1)
            if rsp is None:
                continue  # a changed type is refused as an invalid operation
            result = fields(rsp[0])[3]
            assert result in ((2,) if offset < 484 else (1, 2, 3, 4)), (offset, index, result)
    assert counter_of(base) == 0
    assert (base.parent / "rpmb.data").read_bytes() == CONTENTS


def test_provisioning_round_trip(tmp_path):
    base, key_file, data_file = tmp_path / "dev", tmp_path / "server.key", tmp_path / "devid"
    assert rpmbsim("create", base, 2, "--new-key", key_file).returncode == 0
    assert stat.S_IMODE(key_file.stat().st_mode) == 0o600
    assert key_file.read_bytes() == (tmp_path / "dev.key").read_bytes() != KEY
    data = random_blocks(1)
    data_file.write_bytes(data)
    run = rpmbsim("write", base, 0, data_file)
    assert run.returncode == 0 and run.stdout == b"wrote block 0, counter now 1\n", run.stderr
    assert rpmbsim("read", base, 0, "--out", tmp_path / "back").returncode == 0
    assert (tmp_path / "back").read_bytes() == data
    dump = rpmbsim("read", base, 0, "--count", 2).stdout.decode()
    assert dump.startswith("0000: " + " ".join(f"{b:02x}" for b in data[:16]))
    assert len(dump.splitlines()) == 32
    info = rpmbsim("info", base).stdout.decode()
    assert info == "counter: 1\nsize: 262144 bytes (1024 blocks)\n"


@pytest.mark.parametrize("args,error", [
    (("create", "{d}/n", "0", "--key-file", "{d}/k32"), "bad size '0'"),
    (("create", "{d}/n", "129", "--key-file", "{d}/k32"), "bad size '129'"),
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
    (("write", "{d}/rpmb", "511", "{d}/block"), None),
    (("write", "{d}/rpmb", "512", "{d}/block"), "write failed: device result 0x04"),
    (("frames", "{d}/rpmb", "1"), "standard input must hold 1 to 65535 whole frames"),
    (("frobnicate", "{d}/rpmb"), "bad command line; see --help"),
])
def test_tool_refusals(base, args, error):
    d = base.parent
    (d / "k32").write_bytes(bytes(32))
    (d / "k31").write_bytes(bytes(31))
    (d / "block").write_bytes(bytes(256))
    run = rpmbsim(*(a.format(d=d) for a in args))
    if error is None:
        assert run.returncode == 0, run.stderr
        return
    assert run.returncode == 1
    text = run.stderr.decode()
    assert text.count("\n") == 1 and text.startswith("rpmbsim: "), text
    assert error.format(d=d) in text


def test_expired_counter(base):
    (base.parent / "rpmb.wrctr").write_bytes(b"\xff" * 4)
    (base.parent / "block").write_bytes(bytes(256))
    assert rpmbsim("info", base).stdout.startswith(b"counter: 4294967295 (expired)\n")
    run = rpmbsim("write", base, 1, base.parent / "block")
    assert re.search(rb"device result 0x85 \(write failure, write counter expired\)", run.stderr)
