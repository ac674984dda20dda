# "tpm2-authkey-csr" enrollments of the real daemon against the reference server and a TPM
# simulator (one per test, in the test's own network namespace).

import base64
import hashlib
import hmac

import pytest

import tpmsim
from zeltest import wait_until

DONE = "enrollment completed successfully"


def start(sandbox, start_daemon, server):
    args = sandbox.args("--protocol=tpm2-authkey-csr", "--retry=1", base_url=server.url)
    return start_daemon(args, env=tpmsim.default_tcti_env(sandbox.root))


def paths(server):
    return [r.path.rsplit("/", 1)[-1] for r in server.requests]


def assert_no_tpm_leaks(swtpm):
    assert swtpm.handles("transient") == []
    assert swtpm.handles("persistent") == [tpmsim.AUTHKEY_HANDLE]


@pytest.mark.parametrize("padding", [("rsaes", None), ("oaep", "sha1"),
                                     pytest.param(("oaep", "sha256"), marks=pytest.mark.arm64)])
def test_tpm_enrollment(sandbox, start_daemon, swtpm, tpm_key, tpm_server, padding):
    tpm_server.protocol("tpm2-authkey-csr").padding = padding
    daemon = start(sandbox, start_daemon, tpm_server)
    daemon.wait_for_message(DONE, timeout=20)
    assert paths(tpm_server) == ["initiate", "CSRVerify", "acknowledge"]
    assert daemon.has_message("TPM2 RSA auth key saved to persistent handle 0x81018001")

    # The proof: HMAC-SHA256 keyed by the ephemeral key over the CSR, its NUL and the nonce.
    body = tpm_server.requests[1].json
    assert list(body) == ["cbData", "CSR", "hmac"]
    _, key, nonce = tpm_server.protocol("tpm2-authkey-csr").issued[-1]
    expected = hmac.new(key, body["CSR"].encode() + b"\0" + nonce, hashlib.sha256).digest()
    assert base64.b64decode(body["hmac"]) == expected

    # The key the daemon made is the one the factory derived, kept at its handle.
    assert swtpm.persistent_name() == tpm_key[1]
    daemon.stop()
    assert_no_tpm_leaks(swtpm)


@pytest.mark.parametrize("knob, value, warnings", [
    ("padding", ("oaep", "SHA256"),
     ["unknown padding 'oaep' or paddingHash 'SHA256' in CSRAuthRequired enroll response"]),
    ("cipher_length", 255,
     ["attempted to RSA decrypt cypher text of wrong length (255, need 256)",
      "failed decrypting ephemeral key in CSRAuthRequired enroll response"]),
    ("other_key", True, ["failed decrypting ephemeral key in CSRAuthRequired enroll response"]),
])
def test_tpm_proof_refused(sandbox, start_daemon, swtpm, tpm_server, knob, value, warnings):
    setattr(tpm_server.protocol("tpm2-authkey-csr"), knob, value)
    daemon = start(sandbox, start_daemon, tpm_server)
    for text in warnings:
        daemon.wait_for_message(text, timeout=10)
    tpm_server.wait_for_request("/initiate", count=2)
    assert "CSRVerify" not in paths(tpm_server)
    daemon.stop()
    assert_no_tpm_leaks(swtpm)


def test_no_tpm_then_simulator(sandbox, start_daemon, swtpm, tpm_server):
    if tpmsim.real_tpm_present():
        pytest.skip("a TPM device of this machine would answer instead")
    swtpm.stop()
    daemon = start(sandbox, start_daemon, tpm_server)
    failed = r": failed to open TPM2: .* \(0x[0-9a-f]+\)$"  # at every attempt
    assert wait_until(lambda: daemon.log.count(failed) >= 2, 20), daemon.output()
    assert tpm_server.requests == []

    swtpm.start()
    daemon.wait_for_message(DONE, timeout=40)
    assert paths(tpm_server) == ["initiate", "CSRVerify", "acknowledge"]
    assert_no_tpm_leaks(swtpm)
    assert daemon.has_message("creating TPM2 RSA auth key")
