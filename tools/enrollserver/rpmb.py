""""emmc-rpmb-csr": the device proves its identity with its eMMC RPMB, whose authentication
key only the eMMC and this server know. The server has the device read blocks and its write
counter with fresh nonces and checks the MACs of the answers, then authorises the write of
block 1 and checks, in a fresh read, that the block holds what it chose."""

import base64
import hashlib
import hmac
import secrets
import struct

from .checks import ServerError, bad_request, check_csr, require

BLOCK, NONCE, MAC = 256, 16, 32
WRITE_BLOCK = 1
COUNTER_RSP, WRITE_REQ, READ_RSP = 0x0200, 0x0003, 0x0400
FAULTS = ("bad_mac", "stale_counter", "nonce_mismatch")


def rpmb_mac(key, blocks, nonce=bytes(NONCE), counter=0, address=0, count=0, result=0,
             kind=0):
    """The JEDEC RPMB MAC: HMAC-SHA256 over bytes 228..511 of every frame of an operation,
    that is each block's data followed by the frame's nonce, counter, address, block count,
    result and type (big-endian)."""
    mac = hmac.new(key, digestmod=hashlib.sha256)
    tail = nonce + struct.pack(">IHHHH", counter, address, count, result, kind)
    for block in blocks:
        mac.update(block + tail)
    return mac.digest()


def b64(data):
    return base64.b64encode(data).decode()


def unb64(body, name, size=None):
    try:
        data = base64.b64decode(require(body, name), validate=True)
    except ValueError:
        data = None
    if data is None or (size is not None and len(data) != size):
        raise bad_request(f"member '{name}' is not valid base64 or has wrong length")
    return data


def refused(why):
    return ServerError(403, "RPMBAuthenticationException", why)


class EmmcRpmbCsr:
    """Knobs for tests: `keys` (serial to 32-byte RPMB key; `default_key` for any other
    device), `start_block` and `nr_blocks` of the first read (a hostile `nr_blocks` is sent
    as it stands), `expected_data` (what that read must return; None: anything) and
    `faults`, one-shot faults: "bad_mac" (the write authoriser's MAC is wrong),
    "stale_counter" (it is made for the previous counter, which the card refuses as a MAC
    mismatch, since the MAC covers the counter), "nonce_mismatch" (the read is checked
    against another nonce than the one sent); `endless_writes`: every "/dataVerify" is
    answered with the authorisation of one more write, never with "enrolled"."""

    name = "emmc-rpmb-csr"

    def __init__(self):
        self.keys = {}
        self.default_key = None
        self.start_block, self.nr_blocks = 0, 1
        self.expected_data = None
        self.faults = []
        self.endless_writes = False
        self.authorised = []  # (serial, counter, data) of every authorised write

    def _take(self, fault):
        if fault in self.faults:
            self.faults.remove(fault)
            return True
        return False

    def _key(self, enrollment):
        key = self.keys.get(enrollment.device["serial"], self.default_key)
        if key is None:
            raise refused(f"no RPMB key known for device '{enrollment.device['serial']}'")
        return key

    def _read_request(self, enrollment, start, count):
        enrollment.rpmb_read = (secrets.token_bytes(NONCE), start, count)
        nonce = enrollment.rpmb_read[0]
        return {"rpmbReadRequest": {"nonce": b64(nonce), "startBlock": start,
                                    "nrBlocks": count}}

    def _check_read(self, enrollment, body):
        """The blocks of the read result once its MAC proves them fresh from the device."""
        result = require(body, "rpmbReadResult", dict)
        data, mac = unb64(result, "data"), unb64(result, "hmac", MAC)
        nonce, start, count = enrollment.rpmb_read
        if self._take("nonce_mismatch"):
            nonce = secrets.token_bytes(NONCE)
        if len(data) != count * BLOCK:
            raise bad_request(f"read result holds {len(data)} bytes, not {count} blocks")
        blocks = [data[i:i + BLOCK] for i in range(0, len(data), BLOCK)]
        if mac != rpmb_mac(self._key(enrollment), blocks, nonce, 0, start, count, 0, READ_RSP):
            raise refused("RPMB read result MAC does not verify")
        return data

    def initiate(self, server, enrollment):
        self._key(enrollment)
        return {"status": "dataAuthRequired",
                **self._read_request(enrollment, self.start_block, self.nr_blocks)}

    def step(self, server, enrollment, endpoint, body):
        if endpoint == "dataAuthenticate":
            return self._authenticate(enrollment, body)
        if endpoint == "dataVerify" and getattr(enrollment, "rpmb_write", None):
            return self._verify(server, enrollment, body)
        raise bad_request(f"'{endpoint}' is not the next step of {self.name}")

    def _authenticate(self, enrollment, body):
        key = self._key(enrollment)
        data = self._check_read(enrollment, body)
        if self.expected_data is not None and data != self.expected_data:
            raise refused("RPMB data does not identify this device")
        sign = require(body, "rpmbSignAuthRequest", dict)
        counter = require(sign, "writeCounter", int)
        counter_mac = unb64(sign, "writeCounterHmac", MAC)
        nonce = enrollment.rpmb_read[0]
        if counter_mac != rpmb_mac(key, [bytes(BLOCK)], nonce, counter, kind=COUNTER_RSP):
            raise refused("RPMB write counter MAC does not verify")
        if require(sign, "dataType") != "CSR" or require(sign, "startBlock", int) != WRITE_BLOCK:
            raise bad_request(f"expected a CSR and start block {WRITE_BLOCK}")
        enrollment.csr = check_csr(require(sign, "sdata"), enrollment)
        return self._authorise_write(enrollment, key, counter)

    def _authorise_write(self, enrollment, key, counter):
        block = secrets.token_bytes(BLOCK)
        signed = (counter - 1) % 2**32 if self._take("stale_counter") else counter
        mac = rpmb_mac(key, [block], counter=signed, address=WRITE_BLOCK, count=1,
                       kind=WRITE_REQ)
        if self._take("bad_mac"):
            mac = bytes([mac[0] ^ 1]) + mac[1:]
        enrollment.rpmb_write, enrollment.rpmb_counter = block, counter
        self.authorised.append((enrollment.device["serial"], counter, block))
        return {"status": "dataVerifyRequired",
                **self._read_request(enrollment, WRITE_BLOCK, 1),
                "rpmbSignAuthorizer": {"data": b64(block), "hmac": b64(mac)}}

    def _verify(self, server, enrollment, body):
        if self._check_read(enrollment, body) != enrollment.rpmb_write:
            raise refused(f"RPMB block {WRITE_BLOCK} does not hold the authorised data")
        if self.endless_writes:
            return self._authorise_write(enrollment, self._key(enrollment),
                                         enrollment.rpmb_counter + 1)
        return server.enrolled(enrollment, enrollment.csr)
