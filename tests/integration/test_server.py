"""The reference enrollment server itself, driven with urllib: the daemon's tests trust it
to refuse what a real server would refuse."""

import json
import urllib.error
import urllib.request

import pytest
from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec
from cryptography.x509.oid import NameOID

DEVICE = {"serial": "SN-1", "model": "MP-100", "brand": "Acme"}
SUBJECT = [(NameOID.ORGANIZATION_NAME, "Acme"), (NameOID.ORGANIZATIONAL_UNIT_NAME, "ZelPlayer"),
           (NameOID.DN_QUALIFIER, "MP-100"), (NameOID.COMMON_NAME, "SN-1"),
           (NameOID.SERIAL_NUMBER, "SN-1")]


def post(server, endpoint, document):
    """(HTTP status, Content-Type, parsed body or None)."""
    request = urllib.request.Request(f"{server.url}/{endpoint}", json.dumps(document).encode(),
                                     {"Content-Type": "application/json"})
    try:
        with urllib.request.urlopen(request, timeout=5) as response:
            status, headers, body = response.status, response.headers, response.read()
    except urllib.error.HTTPError as error:
        status, headers, body = error.code, error.headers, error.read()
    return status, headers.get("Content-Type"), json.loads(body) if body else None


def csr_pem(key, subject=SUBJECT):
    name = x509.Name([x509.NameAttribute(oid, value) for oid, value in subject])
    csr = x509.CertificateSigningRequestBuilder().subject_name(name).sign(key, hashes.SHA256())
    return csr.public_bytes(serialization.Encoding.PEM).decode()


def public_pem(key):
    return key.public_key().public_bytes(serialization.Encoding.PEM,
                                         serialization.PublicFormat.SubjectPublicKeyInfo).decode()


def initiate(server, key, protocols=("noauth-csr",)):
    status, content_type, body = post(server, "initiate", {
        "device": DEVICE, "enrollmentProtocols": list(protocols),
        "publicKey": public_pem(key), "enrollService": "aws-iot"})
    assert (status, content_type) == (200, "application/json")
    assert body["status"] == "CSRRequired" and body["enrollmentProtocol"] == "noauth-csr"
    return body["cbData"]


@pytest.mark.parametrize("subject,other_key,why", [
    (SUBJECT[::-1], False, "subject"),
    (SUBJECT[:4], False, "subject"),
    (SUBJECT, True, "public key sent in initiate"),
], ids=["order", "no-serialNumber", "other-key"])
def test_bad_csrs_are_refused(server, subject, other_key, why):
    key = ec.generate_private_key(ec.SECP256R1())
    cb_data = initiate(server, key)
    signer = ec.generate_private_key(ec.SECP256R1()) if other_key else key
    status, _, body = post(server, "CSRVerify",
                           {"cbData": cb_data, "CSR": csr_pem(signer, subject)})
    assert status == 400 and body["code"] == "InvalidCSRException" and why in body["message"]
    assert server.issued_certificates == []
