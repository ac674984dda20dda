# RPMB frames and MACs computed here, independently of the C++ code, and a runner for
# `rpmbsim`, whose `frames` command relays raw frames to a simulated RPMB or a device.

import hashlib
import hmac
import struct
import subprocess

from zeltest import TARGET, build_command

KEY = bytes(range(0x40, 0x60))
COUNTER_READ, DATA_WRITE, DATA_READ = 2, 3, 4
COUNTER_RSP, WRITE_RSP, READ_RSP = 0x200, 0x300, 0x400


def frame(kind, data=b"", nonce=b"", counter=0, address=0, block_count=0, result=0):
    return bytearray(228) + data.ljust(256, b"\0") + nonce.ljust(16, b"\0") + struct.pack(
        ">IHHHH", counter, address, block_count, result, kind)


def fields(f):
    # (counter, address, block count, result, type) of a frame.
    return struct.unpack_from(">IHHHH", f, 500)


def mac(frames):
    # The JEDEC MAC: HMAC-SHA256 with KEY over bytes 228 to 511 of each frame in turn.
    return hmac.new(KEY, b"".join(f[228:] for f in frames), hashlib.sha256).digest()


def write_request(data, counter, address):
    # The frames of an authenticated write of len(data) / 256 blocks, MAC in the last.
    count = len(data) // 256
    frames = [frame(DATA_WRITE, data[i * 256:(i + 1) * 256], counter=counter, address=address,
                    block_count=count) for i in range(count)]
    frames[-1][196:228] = mac(frames)
    return frames


def rpmbsim(*args, env=None, data=None):
    # Runs rpmbsim; returns the completed process (output as bytes).
    return subprocess.run(build_command(TARGET, "tools/rpmbsim", *args), input=data,
                          capture_output=True, env=env, timeout=60)


def relay(base, requests, nrsp, env=None):
    # Sends request frames through `rpmbsim frames`; the response frames.
    run = rpmbsim("frames", base, nrsp, env=env, data=b"".join(requests))
    assert run.returncode == 0 and len(run.stdout) == 512 * nrsp, run.stderr
    return [bytearray(run.stdout[i:i + 512]) for i in range(0, 512 * nrsp, 512)]


def make_simulator(directory, contents):
    # A simulated RPMB of 512 blocks with KEY, filled with `contents`.
    (directory / "given.key").write_bytes(KEY)
    run = rpmbsim("create", directory / "rpmb", 1, "--key-file", directory / "given.key")
    assert run.returncode == 0, run.stderr
    (directory / "rpmb.data").write_bytes(contents)
    return directory / "rpmb"
