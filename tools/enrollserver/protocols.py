"""The enrollment protocols the server speaks. Each protocol answers "/initiate" with its
first status and every later step of its flow; the proof protocols of RPMB and TPM devices
plug in here as further classes registered in PROTOCOLS."""

from cryptography import x509
from cryptography.hazmat.primitives import serialization
from cryptography.x509.oid import NameOID


class ServerError(Exception):
    """Answered with an error object: HTTP `status`, error `code` and `message`."""

    def __init__(self, status, code, message):
        super().__init__(message)
        self.status, self.code, self.message = status, code, message


def bad_request(message, code="InvalidRequestException"):
    return ServerError(400, code, message)


def require(body, name, kind=str):
    value = body.get(name) if isinstance(body, dict) else None
    if not isinstance(value, kind):
        raise bad_request(f"member '{name}' missing or not a {kind.__name__}")
    return value


class Enrollment:
    """The server-side state of one enrollment, found again through its "cbData"."""

    def __init__(self, cb_data, protocol, device, public_key):
        self.cb_data = cb_data
        self.protocol = protocol
        self.device = device
        self.public_key = public_key  # the key sent in "/initiate", or None
        self.certificate = None


def _spki(public_key):
    return public_key.public_bytes(serialization.Encoding.DER,
                                   serialization.PublicFormat.SubjectPublicKeyInfo)


def check_csr(pem, enrollment):
    """The CSR of `pem` once its signature, subject and key are right for `enrollment`."""
    invalid = lambda why: bad_request(why, "InvalidCSRException")  # noqa: E731
    try:
        csr = x509.load_pem_x509_csr(pem.encode())
    except ValueError as error:
        raise invalid(f"CSR is not a PEM certificate request: {error}")
    if not csr.is_signature_valid:
        raise invalid("CSR signature does not verify")
    device = enrollment.device
    expected = [(NameOID.ORGANIZATION_NAME, device["brand"]),
                (NameOID.ORGANIZATIONAL_UNIT_NAME, "ZelPlayer"),
                (NameOID.DN_QUALIFIER, device["model"]),
                (NameOID.COMMON_NAME, device["serial"]),
                (NameOID.SERIAL_NUMBER, device["serial"])]
    subject = [(attr.oid, attr.value) for attr in csr.subject]
    if subject != expected:
        raise invalid(f"CSR subject '{csr.subject.rfc4514_string()}' does not match the device")
    if enrollment.public_key is not None and \
            _spki(csr.public_key()) != _spki(enrollment.public_key):
        raise invalid("CSR key is not the public key sent in initiate")
    return csr


class NoAuthCsr:
    """"noauth-csr": the CSR alone, no hardware proof."""

    name = "noauth-csr"

    def initiate(self, server, enrollment):
        return {"status": "CSRRequired"}

    def step(self, server, enrollment, endpoint, body):
        if endpoint != "CSRVerify":
            raise bad_request(f"'{endpoint}' is not a step of {self.name}")
        csr = check_csr(require(body, "CSR"), enrollment)
        return server.enrolled(enrollment, csr)


from .rpmb import EmmcRpmbCsr  # noqa: E402  (they build on the helpers above)
from .tpm import Tpm2AuthkeyCsr  # noqa: E402

# Each server makes its own instance of these, so that their knobs stay per server.
PROTOCOLS = {protocol.name: protocol
             for protocol in (NoAuthCsr(), EmmcRpmbCsr(), Tpm2AuthkeyCsr())}
