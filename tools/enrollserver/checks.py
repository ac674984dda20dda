"""What every protocol of the server shares: the error answer and the checks of request
members and CSRs. It imports no protocol, so that each of them can build on it."""

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
