# How the daemon treats what the enrollment server answers: size cap, redirects, content
# types, error objects, broken connections, unexpected responses, and the retry timing.

import re
import subprocess
import time

import pytest
from enrollserver import Fault

DONE = "enrollment completed successfully"


def start(sandbox, start_daemon, server, *extra):
    return start_daemon(sandbox.args(*extra, base_url=server.url))


def paths(server):
    return [record.path.rsplit("/", 1)[1] for record in server.requests]


@pytest.mark.arm64
def test_response_size_cap(sandbox, start_daemon, server):
    server.inject("/initiate", Fault.exact_size(131073))
    server.inject("/initiate", Fault.exact_size(131072))
    daemon = start(sandbox, start_daemon, server, "--retry=1")
    daemon.wait_for_message(DONE, timeout=15)
    assert daemon.log.count("response exceeds maximum size 131072, aborting request") == 1
    assert daemon.log.count(r"failed to connect \(1\): Cancelled$") == 1
    assert paths(server) == ["initiate", "initiate", "CSRVerify", "acknowledge"]


@pytest.mark.arm64
@pytest.mark.parametrize("code", [307, 308])
def test_redirects_are_followed_with_the_body(sandbox, start_daemon, server, code):
    server.inject("/initiate", Fault.redirect(code, "/moved/initiate"))
    server.inject("/CSRVerify", Fault.redirect(code, "/moved/CSRVerify"))
    daemon = start(sandbox, start_daemon, server, "--retry=0")
    daemon.wait_for_message(DONE, timeout=15)
    requests = server.requests
    assert [r.path for r in requests] == ["/enroll/initiate", "/moved/initiate",
                                          "/enroll/CSRVerify", "/moved/CSRVerify",
                                          "/enroll/acknowledge"]
    assert requests[0].body == requests[1].body and requests[2].body == requests[3].body
    assert all(r.method == "POST" for r in requests)


def test_content_types(sandbox, start_daemon, server):
    server.inject("/initiate", Fault.content_type("text/plain"))
    server.inject("/initiate", Fault.html_error(502))
    server.inject("/initiate", Fault.content_type("APPLICATION/JSON"))
    daemon = start(sandbox, start_daemon, server, "--retry=1")
    daemon.wait_for_message(DONE, timeout=20)
    assert daemon.has_message("response is not JSON but text/plain, ignoring")
    assert daemon.has_message("request returned error 502: Bad Gateway")
    assert daemon.has_message("response is not JSON but text/html, ignoring")
    assert paths(server) == ["initiate"] * 3 + ["CSRVerify", "acknowledge"]


def test_non_empty_acknowledge_answer_still_completes(sandbox, start_daemon, server):
    server.inject("/acknowledge", Fault.json({"unexpected": True}))
    daemon = start(sandbox, start_daemon, server, "--retry=0")
    daemon.wait_for_message(DONE, timeout=15)
    assert daemon.log.count(
        r"ignoring unexpected non-empty response to acknowledge request \(status 200, "
        r"length \d+, content-type application/json\)$") == 1


# GLib's second-granularity timers may fire up to a quarter second before their interval is
# over, and the spacing counts from when the daemon queued the previous request, a little
# before the server saw it: hence the slack below the spacing.
@pytest.mark.parametrize("retry,low,high", [("0", 0.0, 0.7), ("3", 2.7, 4.3)])
def test_expired_callback_data_restarts_after_the_spacing(sandbox, start_daemon, server,
                                                          retry, low, high):
    server.inject("/CSRVerify", Fault.error(410, "CallbackDataExpiredException"))
    daemon = start(sandbox, start_daemon, server, f"--retry={retry}")
    daemon.wait_for_message(DONE, timeout=15)
    assert daemon.log.count(r"request failed with status code: 410, code: "
                            r"CallbackDataExpiredException, server time: \S+, msg: ") == 1
    assert paths(server) == ["initiate", "CSRVerify", "initiate", "CSRVerify", "acknowledge"]
    gap = server.requests[2].time - server.requests[1].time
    assert low <= gap <= high


def test_other_error_codes_wait_for_the_armed_retry(sandbox, start_daemon, server):
    server.inject("/CSRVerify", Fault.error(400, "InvalidCSRException"))
    daemon = start(sandbox, start_daemon, server, "--retry=0")
    daemon.wait_for_log(r"request failed with status code: 400, code: InvalidCSRException, ")
    assert daemon.has_message("request returned error 400: Bad Request")
    time.sleep(1.5)
    assert paths(server) == ["initiate", "CSRVerify"]


@pytest.mark.parametrize("fault,extra", [(Fault.drop(), []), (Fault.delay(3), ["--timeout=1"])],
                         ids=["dropped", "timeout"])
def test_broken_connections_are_retried(sandbox, start_daemon, server, fault, extra):
    server.inject("/initiate", fault)
    daemon = start(sandbox, start_daemon, server, "--retry=1", *extra)
    daemon.wait_for_message(DONE, timeout=20)
    assert daemon.log.count(r"failed to connect \(\d+\): \S") == 1
    assert paths(server) == ["initiate", "initiate", "CSRVerify", "acknowledge"]


@pytest.mark.parametrize("answer,message", [
    ({"status": "CSRRequired", "enrollmentProtocol": "emmc-rpmb-csr", "cbData": "x"},
     "enrollment server returned unexpected protocol 'emmc-rpmb-csr'"),
    ({"status": "CSRRequired", "cbData": "x"},
     "enrollment server returned bad protocol '', expected 'noauth-csr'"),
    ({"status": "dataAuthRequired", "enrollmentProtocol": "noauth-csr", "cbData": "x"},
     "enrollment server returned bad protocol 'noauth-csr', expected 'emmc-rpmb-csr'"),
    ({"status": "pending", "enrollmentProtocol": "noauth-csr", "cbData": "x"},
     "unknown status 'pending' received in enroll response"),
    ({"status": "enrolled", "enrollmentProtocol": "noauth-csr", "cbData": "x"},
     "missing enrolledServices in enrolled enroll response"),
    ({"status": "enrolled", "enrollmentProtocol": "noauth-csr", "cbData": "x",
      "enrolledServices": {"other": {}}},
     "missing service in enrolled enroll response"),
    ({"enrollmentProtocol": "noauth-csr", "cbData": "x"},
     "failed parsing enrollment response: "),
], ids=["unoffered-protocol", "no-protocol", "wrong-protocol", "unknown-status",
        "no-services", "no-aws-iot", "no-status"])
def test_unexpected_answers_stop_the_attempt(sandbox, start_daemon, server, answer, message):
    server.inject("/initiate", Fault.json(answer))
    daemon = start(sandbox, start_daemon, server, "--retry=0")
    daemon.wait_for_log(re.escape(message))
    daemon.stop()
    assert paths(server) == ["initiate"]


def test_retry_backoff(sandbox, start_daemon, server):
    server.inject("/initiate", Fault.error(500, "InternalServerError"), times=10)
    daemon = start(sandbox, start_daemon, server, "--retry=1", "--debug")
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


def test_one_connection_closed_once_enrolled(sandbox, start_daemon, server):
    daemon = start(sandbox, start_daemon, server, "--retry=0")
    daemon.wait_for_message(DONE, timeout=15)
    assert len({r.client for r in server.requests}) == 1
    time.sleep(0.5)
    sockets = subprocess.run(["ss", "-Htnp"], capture_output=True, text=True).stdout
    assert f"pid={daemon.pid}," not in sockets
