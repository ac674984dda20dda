# Full "noauth-csr" enrollments of the real daemon against the reference server.

import json
import re
import subprocess
import time

import pytest
from enrollserver import Fault

DONE = "enrollment completed successfully"


def status(sandbox):
    return json.loads(sandbox.status_file.read_text())


@pytest.mark.arm64
def test_noauth_csr_enrollment_and_restart_until_base_url_changes(sandbox, start_daemon, server,
                                                                  second_server):
    server.extra_services = {"other": {"endpoint": "other.example"}}
    server.service_members = ('"ints": [0, -1, 9223372036854775807, -9223372036854775808], '
                              '"halves": [0.5, -1.25], "long": "' + "x/" * 30000 + '", '
                              '"nested": {"a": {"b": [true, null, {}, []]}}')
    extra = ("--user-serial=U1", "--chassis-serial=C4", "--protocol=noauth-csr")
    device = {"serial": "SN-42", "fwver": "2.1.0"}
    daemon = start_daemon(sandbox.args(*extra, base_url=server.url, **device))
    daemon.wait_for_message(DONE, timeout=15)
    assert daemon.has_message("initiating enrollment with protocol(s): noauth-csr")
    assert [r.path for r in server.requests] == [
        "/enroll/initiate", "/enroll/CSRVerify", "/enroll/acknowledge"]
    for record in server.requests:
        assert record.headers["Content-Type"] == "application/json"
        assert record.headers["User-Agent"].startswith("zelenrolld/1.0 libsoup/")
    public_key = subprocess.run(["openssl", "pkey", "-pubout", "-in", str(sandbox.key)],
                                capture_output=True, text=True, check=True).stdout
    assert list(server.requests[0].json.items()) == [
        ("device", {"serial": "SN-42", "model": "MP-100", "brand": "Acme",
                    "altSerial": {"user": "U1", "chassis": "C4"}}),
        ("firmwareVersion", "2.1.0"), ("enrollmentProtocols", ["noauth-csr"]),
        ("publicKey", public_key), ("enrollService", "aws-iot")]

    # The service is stored exactly as sent (compared without the white space between JSON
    # tokens), pretty-printed, and its certificate is the one issued for the device key.
    sent = server.sent_services[-1]["aws-iot"]
    text = (sandbox.services_dir / "aws-iot" / "service.json").read_text()
    squeezed = re.sub(r'("(?:[^"\\]|\\.)*")|\s+', lambda m: m.group(1) or "", text)
    assert squeezed == json.dumps(sent, separators=(",", ":")) and "\n  " in text
    cert = subprocess.run(["openssl", "x509", "-noout", "-pubkey"], input=sent["certificate"],
                          capture_output=True, text=True, check=True).stdout
    assert cert == public_key
    assert server.requests[-1].json["acknowledgedServices"] == {
        "aws-iot": {"status": "saved"}, "other": {"status": "unknown"}}
    assert not (sandbox.services_dir / "other").exists()

    # Enrolled: no retry is left armed.
    time.sleep(2.5)
    assert len(server.requests) == 3
    assert daemon.stop() == 0
    first = status(sandbox)
    assert first["enrolled"] is True and first["lastEnrollBaseURL"] == server.url

    # An enrolled device sends nothing after a restart.
    daemon = start_daemon(sandbox.args(*extra, base_url=server.url, **device))
    daemon.wait_for_message("current enrolled status: true")
    time.sleep(2.5)
    assert len(server.requests) == 3 and status(sandbox) == first
    daemon.stop()

    # A new base URL forces a new enrollment with the new server.
    daemon = start_daemon(sandbox.args(*extra, base_url=second_server.url, **device))
    daemon.wait_for_message(DONE, timeout=15)
    assert daemon.has_message(f"the enroll base URL has changed (was '{server.url}'), "
                              "forcing re-enrollment")
    assert len(server.requests) == 3 and len(second_server.requests) == 3
    state = status(sandbox)
    assert state["enrolled"] is True and state["lastEnrolledTStamp"] >= first["lastEnrolledTStamp"]
    assert state["lastEnrollBaseURL"] == second_server.url and "forcedEnrollTStamp" in state
    service = json.loads((sandbox.services_dir / "aws-iot" / "service.json").read_text())
    assert service == second_server.sent_services[-1]["aws-iot"]


def test_disabled_enroller_sends_nothing(sandbox, start_daemon, server):
    daemon = start_daemon(sandbox.args("--disable", base_url=server.url))
    daemon.wait_for_message("enroller disabled, not scheduling retry")
    time.sleep(2.5)
    assert server.requests == [] and status(sandbox)["enabled"] is False


UNSAVED = "failed saving aws-iot service confiuration: "
UNREADABLE = "service configuration would not read back as JSON: "
CHANGED = "service configuration cannot be stored as received: "


@pytest.mark.parametrize("fault,warning,message", [
    ("bad-cert", "received bad certificate for aws-iot service: ", "bad certificate: "),
    ("no-services-dir", UNSAVED, "Error creating"),
    # service members json-glib would not write back as they were sent
    ('"n": 1e20', UNSAVED, UNREADABLE),  # "1e+20.0"
    ('"n": [-1e400]', UNSAVED, UNREADABLE),  # "-inf.0"
    ('"n": 100000000000000000000', UNSAVED, CHANGED + "$['n']: 100000000000000000000 against -1"),
    ('"n": {"m": 9223372036854775808}', UNSAVED,
     CHANGED + "$['n']['m']: 9223372036854775808 against -9223372036854775808"),
    ('"s": "a\\u0000b"', UNSAVED, CHANGED + "$['s']: \"a\\u0000b\" against \"a\""),
])
def test_unsaved_service_is_acknowledged_as_error(sandbox, start_daemon, server, fault,
                                                  warning, message):
    services_dir = sandbox.root / "missing" if fault == "no-services-dir" else sandbox.services_dir
    server.bad_certificate = fault == "bad-cert"
    server.service_members = fault if fault.startswith('"') else None
    daemon = start_daemon(sandbox.args("--retry=0", "--debug", f"--services-dir={services_dir}",
                                       base_url=server.url))
    server.wait_for_request("/acknowledge")
    daemon.wait_for_log(re.escape(warning + (message if warning == UNSAVED else "")))
    daemon.wait_for_log("enrollment process finished but service not saved")
    ack = server.requests[-1].json["acknowledgedServices"]["aws-iot"]
    assert ack["status"] == "error" and ack["message"].startswith(message)
    assert not (services_dir / "aws-iot").exists()
    assert not daemon.has_message(DONE) and status(sandbox)["enrolled"] is False


def test_unreadable_key_and_trailing_slashes_of_base_url(sandbox, start_daemon, server):
    sandbox.key.write_text("not a key\n")
    daemon = start_daemon(sandbox.args("--retry=0", base_url=server.url + "///"))
    server.wait_for_request("initiate")
    assert server.requests[0].path == "/enroll/initiate"
    assert "publicKey" not in server.requests[0].json
    daemon.wait_for_log(re.escape(f"failed to read key from '{sandbox.key}': "))
    daemon.wait_for_log("failed to create CSR: ")


# GLib's second-granularity timers may fire up to a quarter second before their interval is
# over, and the spacing counts from when the daemon queued the previous request, a little
# before the server saw it: hence the slack below the spacing. Other error codes wait for the
# armed retry.
@pytest.mark.parametrize("http,code,retry,gap", [
    (410, "CallbackDataExpiredException", 0, (0.0, 0.7)),
    (410, "CallbackDataExpiredException", 3, (2.7, 4.3)),
    (400, "InvalidCSRException", 0, None)], ids=["expired", "expired-spaced", "other"])
def test_initiate_body_and_expired_callback_data_restart_after_the_spacing(
        sandbox, start_daemon, server, http, code, retry, gap):
    server.inject("/CSRVerify", Fault.error(http, code))
    daemon = start_daemon(sandbox.args(f"--retry={retry}", "--force-new-cert",
                                       "--protocol=noauth-csr", "--protocol=noauth-csr", fwver="",
                                       base_url=server.url))
    daemon.wait_for_log(rf"request failed with status code: {http}, code: {code}, server "
                        r"time: \S+, msg: ")
    # No alternative serials, an empty firmware version, the protocols as given (duplicates
    # kept) and no public key with --force-new-cert.
    assert server.requests[0].json == {
        "device": {"serial": "SN-TEST-1", "model": "MP-100", "brand": "Acme"},
        "enrollmentProtocols": ["noauth-csr", "noauth-csr"], "enrollService": "aws-iot"}
    if gap is None:
        time.sleep(1.5)
        assert [r.path for r in server.requests] == ["/enroll/initiate", "/enroll/CSRVerify"]
        return
    daemon.wait_for_message(DONE, timeout=15)
    assert len(server.requests) == 5 and server.requests[2].path == "/enroll/initiate"
    assert gap[0] <= server.requests[2].time - server.requests[1].time <= gap[1]


def test_retry_backoff(sandbox, start_daemon, server):
    server.inject("/initiate", Fault.error(500, "InternalServerError"), times=10)
    daemon = start_daemon(sandbox.args("--retry=1", "--debug", base_url=server.url))
    server.wait_for_request("/initiate", count=4, timeout=20)
    daemon.stop()
    announced = [(float(h) * 3600 + float(m) * 60 + float(sec), int(mult), int(n))
                 for h, m, sec, mult, n in re.findall(
                     r"(\d\d):(\d\d):([\d.]+): retrying enroll \(multiplier (\d+)\), "
                     r"next retry in (\d+) secs", daemon.output())]
    assert [m for _, m, _ in announced[:4]] == [1, 2, 4, 8]
    for _, multiplier, delay in announced:
        assert 1 <= delay <= 1 + multiplier
    # Each firing comes when the previous one said it would (second-granularity timers, which
    # may fire up to a quarter second early), timed by the daemon's own clock so that the
    # latency of the HTTP requests does not count.
    for (armed, _, delay), (fired, _, _) in zip(announced, announced[1:]):
        assert delay - 0.3 <= fired - armed <= delay + 1.2
