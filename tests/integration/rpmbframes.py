# RPMB frames and MACs computed here, independently of the C++ code, and a runner for
# `rpmbsim`, whose `frames` command relays raw frames to a simulated RPMB or a device.

import hashlib
import hmac
import os
import struct
import subprocess

from zeltest import BUILD_DIR, TARGET, build_command

SHIM = BUILD_DIR / "tests" / "shim" / "libmmc_shim.so"
KEY = bytes(range(0x40, 0x60))
NO_MMC_EMULATION = ("qemu-user does not translate the MMC ioctl, and the shim answering it "
                    "is a native library preloaded into the program")

COUNTER_READ, DATA_WRITE, DATA_READ = 2, 3, 4
COUNTER_RSP, WRITE_RSP, READ_RSP = 0x200, 0x300, 0x400
MAC_INPUT = slice(228, 512)


def frame(kind, data=b"", nonce=b"", counter=0, address=0, block_count=0, result=0):
    f = bytearray(512)
    f[228:484] = data.ljust(256, b"\0")
    f[484:500] = nonce.ljust(16, b"\0")
    struct.pack_into(">IHHHH", f, 500, counter, address, block_count, result, kind)
    return f


def fields(f):
    # (counter, address, block count, result, type) of a frame.
    return struct.unpack_from(">IHHHH", f, 500)


def mac(frames, key=KEY):
    # The JEDEC MAC: HMAC-SHA256 over bytes 228 to 511 of each frame in turn.
    return hmac.new(key, b"".join(bytes(f[MAC_INPUT]) for f in frames), hashlib.sha256).digest()


def write_request(data, counter, address, key=KEY):
    # The frames of an authenticated write of len(data) / 256 blocks, MAC in the last.
    count = len(data) // 256
    frames = [frame(DATA_WRITE, data[i * 256:(i + 1) * 256], counter=counter, address=address,
                    block_count=count) for i in range(count)]
    frames[-1][196:228] = mac(frames, key)
    return frames


def rpmbsim(*args, env=None, data=None):
    # Runs rpmbsim; returns the completed process (output as bytes).
    return subprocess.run(build_command(TARGET, "tools/rpmbsim", *args), input=data,
                          capture_output=True, env=env, timeout=60)


def relay(base, requests, nrsp, env=None, args=()):
    # Sends request frames through `rpmbsim frames`; the response frames, or None when the
    # operation itself failed.
    run = rpmbsim("frames", base, nrsp, *args, env=env, data=b"".join(bytes(f) for f in requests))
    if run.returncode != 0:
        return None
    out = run.stdout
    assert len(out) == 512 * nrsp, run.stderr
    return [bytearray(out[i * 512:(i + 1) * 512]) for i in range(nrsp)]


def make_simulator(directory, contents=None):
    # A simulated RPMB of 512 blocks with KEY, filled with `contents` when given.
    base = directory / "rpmb"
    key_file = directory / "given.key"
    key_file.write_bytes(KEY)
    run = rpmbsim("create", base, 1, "--key-file", key_file)
    assert run.returncode == 0, run.stderr
    if contents is not None:
        (directory / "rpmb.data").write_bytes(contents)
    return base


def random_blocks(n):
    return os.urandom(256 * n)
