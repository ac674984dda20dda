"""The test CA of the reference server: TLS server certificates and device certificates."""

import datetime
import ipaddress
from pathlib import Path

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec
from cryptography.x509.oid import ExtendedKeyUsageOID, NameOID

PEM = serialization.Encoding.PEM


def _new_key():
    return ec.generate_private_key(ec.SECP256R1())


def _key_pem(key):
    return key.private_bytes(PEM, serialization.PrivateFormat.PKCS8,
                             serialization.NoEncryption())


def _name(common_name):
    return x509.Name([x509.NameAttribute(NameOID.ORGANIZATION_NAME, "Zel Test CA"),
                      x509.NameAttribute(NameOID.COMMON_NAME, common_name)])


class TestCA:
    """A CA whose key and certificate live as PEM files in `directory` (made or reused)."""

    def __init__(self, directory):
        self.directory = Path(directory)
        self.directory.mkdir(parents=True, exist_ok=True)
        self.cert_file = self.directory / "ca.pem"
        key_file = self.directory / "ca.key"
        if self.cert_file.exists() and key_file.exists():
            self.key = serialization.load_pem_private_key(key_file.read_bytes(), None)
            self.cert = x509.load_pem_x509_certificate(self.cert_file.read_bytes())
            return
        self.key = _new_key()
        builder = self._builder(_name("Zel Test Root"), self.key.public_key(), days=3650)
        builder = builder.add_extension(x509.BasicConstraints(ca=True, path_length=None), True)
        self.cert = builder.sign(self.key, hashes.SHA256())
        key_file.write_bytes(_key_pem(self.key))
        key_file.chmod(0o600)
        self.cert_file.write_bytes(self.cert.public_bytes(PEM))

    @property
    def cert_pem(self):
        return self.cert.public_bytes(PEM).decode()

    def _builder(self, subject, public_key, days):
        now = datetime.datetime.now(datetime.timezone.utc)
        issuer = subject if not hasattr(self, "cert") else self.cert.subject
        return (x509.CertificateBuilder().subject_name(subject).issuer_name(issuer)
                .public_key(public_key).serial_number(x509.random_serial_number())
                .not_valid_before(now - datetime.timedelta(minutes=5))
                .not_valid_after(now + datetime.timedelta(days=days)))

    def issue_server_cert(self, hosts=("127.0.0.1", "::1", "localhost")):
        """(certificate file, key file) for a TLS server reachable under `hosts`."""
        key = _new_key()
        names = []
        for host in hosts:
            try:
                names.append(x509.IPAddress(ipaddress.ip_address(host)))
            except ValueError:
                names.append(x509.DNSName(host))
        cert = (self._builder(_name(hosts[0]), key.public_key(), days=30)
                .add_extension(x509.SubjectAlternativeName(names), False)
                .add_extension(x509.ExtendedKeyUsage([ExtendedKeyUsageOID.SERVER_AUTH]), False)
                .sign(self.key, hashes.SHA256()))
        stem = self.directory / f"server-{cert.serial_number:x}"
        cert_file, key_file = stem.with_suffix(".pem"), stem.with_suffix(".key")
        cert_file.write_bytes(cert.public_bytes(PEM) + self.cert.public_bytes(PEM))
        key_file.write_bytes(_key_pem(key))
        return cert_file, key_file

    def sign_csr(self, csr, days=365):
        """The device client certificate (PEM text) for a checked CSR."""
        cert = (self._builder(csr.subject, csr.public_key(), days)
                .add_extension(x509.ExtendedKeyUsage([ExtendedKeyUsageOID.CLIENT_AUTH]), False)
                .sign(self.key, hashes.SHA256()))
        return cert.public_bytes(PEM).decode()

    def issue_cert(self, public_key, not_before, not_after, subject="device"):
        """A client certificate for `public_key` valid from `not_before` to `not_after`
        (aware datetimes), as PEM text."""
        cert = (x509.CertificateBuilder().subject_name(_name(subject))
                .issuer_name(self.cert.subject).public_key(public_key)
                .serial_number(x509.random_serial_number())
                .not_valid_before(not_before).not_valid_after(not_after)
                .add_extension(x509.ExtendedKeyUsage([ExtendedKeyUsageOID.CLIENT_AUTH]), False)
                .sign(self.key, hashes.SHA256()))
        return cert.public_bytes(PEM).decode()

    def issue_unrelated_cert(self, subject="unrelated device"):
        """A certificate for a key nobody else has (PEM text)."""
        return (self._builder(_name(subject), _new_key().public_key(), days=30)
                .sign(self.key, hashes.SHA256()).public_bytes(PEM).decode())
