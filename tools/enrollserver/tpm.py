"""Server side of "tpm2-authkey-csr": the device proves that its CSR comes from the TPM whose
authentication key the factory registered. The server encrypts a fresh ephemeral key to that
key; only the TPM can decrypt it, and the device returns an HMAC-SHA256 keyed with it over
the CSR (with its terminating NUL) and a server nonce."""

import base64
import hashlib
import hmac
import secrets
import threading

from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import padding as asym_padding
from cryptography.hazmat.primitives.asymmetric import rsa

from .checks import ServerError, bad_request, check_csr, require

HASHES = {"sha1": hashes.SHA1, "sha256": hashes.SHA256}


def _padding(name, hash_name):
    """The cryptography padding for a wire pair; pairs the device does not know are
    encrypted with OAEP-SHA256, for the device to refuse."""
    if name == "rsaes":
        return asym_padding.PKCS1v15()
    algorithm = HASHES.get(hash_name if name == "oaep" else None, hashes.SHA256)()
    return asym_padding.OAEP(mgf=asym_padding.MGF1(algorithm), algorithm=algorithm, label=None)


def csr_hmac(key, csr_pem, nonce):
    """What the device must answer: HMAC-SHA256(key, CSR || 0x00 || nonce)."""
    return hmac.new(key, csr_pem.encode() + b"\0" + nonce, hashlib.sha256).digest()


class TpmSettings:
    """The TPM authentication keys of the devices, by serial number, as a factory registers
    them (`register`; `default_key` serves any other device), and the knobs of the
    "hmacRequest": `padding` (wire name and hash name, None leaves "paddingHash" out),
    `key_size` of the ephemeral key, and the faults `cipher_length` (cut or pad the cipher
    text to this many bytes), `other_key` (encrypt to an unrelated key) and `wrong_hmac`
    (expect an HMAC over the CSR without its NUL). `issued` records (serial, key, nonce) of
    every request."""

    def __init__(self):
        self.keys = {}
        self.default_key = None
        self.padding = ("oaep", "sha256")
        self.key_size = 32
        self.cipher_length = None
        self.other_key = False
        self.wrong_hmac = False
        self.issued = []
        self._lock = threading.Lock()

    @staticmethod
    def load_key(pem):
        key = serialization.load_pem_public_key(pem.encode() if isinstance(pem, str) else pem)
        if not isinstance(key, rsa.RSAPublicKey):
            raise ValueError("the TPM authentication key must be an RSA key")
        return key

    def register(self, serial, pem):
        self.keys[serial] = self.load_key(pem)

    def key_of(self, serial):
        return self.keys.get(serial, self.default_key)

    def record(self, serial, key, nonce):
        with self._lock:
            self.issued.append((serial, key, nonce))


class Tpm2AuthkeyCsr(TpmSettings):
    """"tpm2-authkey-csr": the CSR with an HMAC keyed by a TPM-decrypted ephemeral key. Each
    server has its own instance, whose settings are its knobs."""

    name = "tpm2-authkey-csr"

    def initiate(self, server, enrollment):
        tpm = self
        serial = enrollment.device["serial"]
        public_key = tpm.key_of(serial)
        if public_key is None:
            raise ServerError(403, "UnknownDeviceException",
                              f"no TPM authentication key registered for device '{serial}'")
        if tpm.other_key:
            public_key = rsa.generate_private_key(65537, 2048).public_key()
        key = secrets.token_bytes(tpm.key_size)
        nonce = secrets.token_bytes(16)
        name, hash_name = tpm.padding
        crypted = public_key.encrypt(key, _padding(name, hash_name))
        if tpm.cipher_length is not None:
            crypted = crypted[:tpm.cipher_length].ljust(tpm.cipher_length, b"\0")
        enrollment.tpm_key, enrollment.tpm_nonce = key, nonce
        tpm.record(serial, key, nonce)
        encrypted = {"crypted": base64.b64encode(crypted).decode(), "padding": name}
        if hash_name is not None:
            encrypted["paddingHash"] = hash_name
        return {"status": "CSRAuthRequired",
                "hmacRequest": {"nonce": base64.b64encode(nonce).decode(),
                                "rsaEncryptedKey": encrypted}}

    def step(self, server, enrollment, endpoint, body):
        if endpoint != "CSRVerify":
            raise bad_request(f"'{endpoint}' is not a step of {self.name}")
        csr_pem = require(body, "CSR")
        try:
            received = base64.b64decode(require(body, "hmac"), validate=True)
        except ValueError:
            raise bad_request("'hmac' is not base64")
        expected = csr_hmac(enrollment.tpm_key, csr_pem, enrollment.tpm_nonce)
        if self.wrong_hmac:  # as a server forgetting the NUL would
            expected = hmac.new(enrollment.tpm_key, csr_pem.encode() + enrollment.tpm_nonce,
                                hashlib.sha256).digest()
        if not hmac.compare_digest(received, expected):
            raise ServerError(403, "InvalidHMACException",
                              "the HMAC does not prove possession of the device's TPM key")
        csr = check_csr(csr_pem, enrollment)
        return server.enrolled(enrollment, csr)
