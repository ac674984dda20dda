# The daemon against a hostile enrollment server and a hostile system: redirects of every
# kind, bodies that never end or inflate, floods of headers, resets, silence, endless interim
# answers, drips, bodies of every shape, broken status files, full and read-only file
# systems, and kills at any moment.
#
# Every case must end in the daemon's exact message, with the daemon still running and the
# next attempt still made (and then enrolling, where the server lets it). The cases of the
# table run side by side, each with its own server, sandbox and daemon, to keep the run short.

import json
import random
import re
import signal
import subprocess
import time
from dataclasses import dataclass, field
from typing import Callable, Optional

import pytest
import zeltest
from enrollserver import EnrollServer, Fault

DONE = "enrollment completed successfully"
TOO_BIG = "response exceeds maximum size 131072, aborting request"
CANCELLED = "failed to connect (1): Cancelled"
# with --timeout=1: five times the timeout
DEADLINE = "request not completed within 5 seconds, aborting request"
EXPIRED = re.compile(r"request failed with status code: -?\d+, code: CallbackDataExpiredException, "
                     r"server time: ")
PRECONDITION = ("void Enroller::req_response_cb(SoupSession*, SoupMessage*): assertion "
                "'SOUP_STATUS_IS_CLIENT_ERROR(msg->status_code) || "
                "SOUP_STATUS_IS_SERVER_ERROR(msg->status_code)' failed")


def malformed(code):
    return [f"got malformed HTTP redirect with status code {code}",
            f"unexpected HTTP status on response ({code}): "
            + {307: "Temporary Redirect", 308: "Permanent Redirect"}[code]]


def parse_failed(detail):
    return [f"parsing failed: {detail}"]


def reader_failed(detail):
    return [f"failed parsing enrollment response: {detail}"]


def error_logged(status, phrase, *then):
    return [f"request returned error {status}: {phrase}", *then]


def not_json(status, phrase, kind):
    return error_logged(status, phrase, f"response is not JSON but {kind}, ignoring")


def status_kept(box, detail):
    path = box.status_file
    first = (f"enroller status file {path} is empty" if detail is None else
             f"failed to parse JSON from enroller status file {path}: {detail}".replace(
                 "<data>", str(path)))
    return [first, f"keeping unreadable enroller status file {path} as {path}.bad"]


@dataclass
class Case:
    # One hostile situation: `faults` are (endpoint, fault) pairs injected before the start,
    # `messages` the daemon's lines in order (texts, or regexes), or a function of the
    # sandbox giving them. `enrolls`: the attempt after the fault enrolls the device.
    id: str
    faults: list = field(default_factory=list)
    messages: object = ()
    args: tuple = ()
    enrolls: bool = True
    retried: bool = True  # the faults make the attempt fail
    root: bool = False
    tls: bool = False
    status: Optional[bytes] = None  # status file contents before the start
    mounts: Optional[Callable] = None  # sandbox, server -> mounts
    check: Optional[Callable] = None  # run -> None, asserts the end state


def redirect(code, endpoint, **kwargs):
    return (endpoint, Fault.redirect(code, **kwargs))


def raw(data, status=200, content_type="application/json"):
    return ("/initiate", Fault.raw(data, status, content_type))


def status_bad_kept(original):
    def check(run):
        assert (run.box.status_file.parent / "status.bad").read_bytes() == original
        assert json.loads(run.box.status_file.read_text())["enrolled"] is True
    return check


def acknowledged_once(run):
    # Only the second attempt's acknowledgement reached the server, and it alone enrolled.
    assert all(r.method == "POST" for r in run.server.requests)
    assert len(run.server.acknowledgements) == 1 and run.daemon.log.count(DONE) == 1


def acknowledged_as_error(run):
    assert zeltest.wait_until(lambda: run.server.acknowledgements, 10), run.daemon.output()
    assert all(acks["aws-iot"]["status"] == "error" for _, acks in run.server.acknowledgements)
    assert not (run.box.services_dir / "aws-iot" / "service.json").exists()


def read_only_status(box, server):
    box.status_file = box.root / "ro" / "status"
    box.status_file.parent.mkdir()
    return {str(box.status_file.parent): ("ro", box.status_file.parent)}


CASES = [
    # redirects: only 307 and 308 are followed, never to another scheme nor down to http
    Case("302-acknowledge", [redirect(302, "/acknowledge", to_path="/moved/acknowledge")],
         ["unexpected HTTP status on response (302): Found"], check=acknowledged_once),
    Case("301-initiate", [redirect(301, "/initiate", to_path="/moved/initiate")],
         ["unexpected HTTP status on response (301): Moved Permanently"]),
    Case("303-CSRVerify", [redirect(303, "/CSRVerify", to_path="/moved/CSRVerify")],
         ["unexpected HTTP status on response (303): See Other"]),
    Case("307-to-ftp", [redirect(307, "/initiate", location="ftp://127.0.0.1/enroll/initiate")],
         malformed(307)),
    Case("308-to-mailto", [redirect(308, "/CSRVerify", location="mailto:x@example.com")],
         malformed(308)),
    Case("307-without-location", [redirect(307, "/initiate")], malformed(307)),
    Case("307-loop", [redirect(307, "/initiate", to_path="/loop/initiate")] * 21,
         ["failed to connect (10): Too many redirects"]),
    Case("307-https-to-http", root=True, tls=True, messages=malformed(307),
         faults=[redirect(307, "/initiate", location="http://127.0.0.1:9/enroll/initiate")],
         mounts=lambda box, srv: {"/etc/ssl/certs/ca-certificates.crt":
                                  box.write("ca-bundle.crt", srv.ca_file.read_text())}),
    # transport
    Case("endless-chunks", [("/initiate", Fault.endless_chunks())], [TOO_BIG, CANCELLED]),
    Case("gzip-bomb", [("/CSRVerify", Fault.gzip(32 << 20))], [TOO_BIG, CANCELLED]),
    Case("gzip", [("/initiate", Fault.gzip())], [DONE], retried=False),
    Case("10000-headers", [("/initiate", Fault.headers(10000))],
         ["failed to connect (8): Message Corrupt"]),
    Case("reset-after-headers", [("/initiate", Fault.reset_after_headers())],
         ["failed to connect (7): Connection terminated unexpectedly"]),
    Case("silent", [("/CSRVerify", Fault.delay(6))], ["failed to connect (7): Connection "
                                                      "terminated unexpectedly"],
         args=("--timeout=1",)),
    # never silent for the timeout, never done: the request's deadline ends it
    Case("endless-102", [("/initiate", Fault.interim_responses(20))], [DEADLINE, CANCELLED],
         args=("--timeout=1",)),
    Case("drip", [("/CSRVerify", Fault.drip(20))], [DEADLINE, CANCELLED], args=("--timeout=1",)),
    # a POST is never re-sent on its own when its kept-alive connection turns out closed
    Case("drop-kept-alive", [("/CSRVerify", Fault.drop())],
         ["failed to connect (8): Message Corrupt"],
         check=lambda run: [r.path.rsplit("/", 1)[1] for r in run.server.requests] ==
         ["initiate", "CSRVerify", "initiate", "CSRVerify", "acknowledge"]),
    Case("status-600", [("/initiate", Fault.json({"statusCode": 600}, 600))],
         error_logged(600, "", PRECONDITION)),
    # bodies the parser or the reader refuses
    Case("nested-too-deeply", [raw(b"[" * 65000 + b"]" * 65000)],
         parse_failed("JSON values are nested too deeply")),
    Case("latin1", [raw(b'{"status": "\xe9"}')], parse_failed("JSON data must be UTF-8 encoded")),
    Case("utf16", [raw('{"status": "x"}'.encode("utf-16"))],
         parse_failed("JSON data must be UTF-8 encoded")),
    Case("lone-surrogate", [raw(b'{"cbData": "\\ud800"}')],
         parse_failed("<data>:1:13: Parse error: scanner: malformed surrogate pair")),
    Case("truncated", [raw(b'{"status": "CSRReq')],
         parse_failed("<data>:1:19: Parse error: scanner: unterminated string constant")),
    Case("two-documents", [raw(b"{} {}")],
         parse_failed("JSON document holds more than one top-level value")),
    Case("nan", [raw(b'{"status": NaN}')],
         parse_failed("<data>:1:14: Parse error: unexpected identifier `NaN', expected value")),
    Case("blank", [raw(b" \r\n\t ")], ["response is empty, ignoring"]),
    Case("array", [raw(b"[1, 2]")], reader_failed("expected object in JSON but got JsonArray")),
    Case("null", [raw(b"null")], reader_failed("expected object in JSON but got NULL")),
    Case("status-number", [raw(b'{"status": 5}')],
         reader_failed("member 'status' does not hold a string")),
    Case("no-cbData", [raw(b'\xef\xbb\xbf{"status": "CSRRequired"}')],
         reader_failed("missing member 'cbData'")),
    # error answers of every shape
    Case("error-empty", [raw(b"", 500, None)],
         error_logged(500, "Internal Server Error", "response has no content-type or no body")),
    Case("error-html", [("/CSRVerify", Fault.html_error(503))],
         not_json(503, "Service Unavailable", "text/html")),
    Case("error-text", [raw(b"nope", 404, "text/plain")], not_json(404, "Not Found", "text/plain")),
    Case("error-array", [raw(b"[]", 500)], error_logged(
        500, "Internal Server Error",
        "request failed with status code: 0, code: , server time: , msg: ")),
    Case("error-types", [raw(b'{"statusCode": "x", "code": 1, "time": [], "message": {}}', 418)],
         error_logged(418, "I'm a Teapot",
                      "request failed with status code: 0, code: , server time: , msg: ")),
    Case("error-broken", [raw(b'{"code": ', 502)],
         error_logged(502, "Bad Gateway", "parsing failed: <data>:1:9: Parse error: "
                                          "unexpected end of file, expected character `}'")),
    # broken status files are kept beside the new one
    Case("status-garbage", status=b"{\"enrolled\": tru", check=status_bad_kept(b"{\"enrolled\": tru"),
         messages=lambda box: status_kept(
             box, "<data>:1:16: Parse error: unexpected identifier `tru', expected value")),
    Case("status-empty", status=b"", check=status_bad_kept(b""),
         messages=lambda box: status_kept(box, None)),
    Case("status-binary", status=b"\x00\xff\xfe", check=status_bad_kept(b"\x00\xff\xfe"),
         messages=lambda box: status_kept(box, "JSON data must be UTF-8 encoded")),
    Case("status-partial", status=b'{"enrolled": false, "rpmb": {"writeTStamps": []}}',
         messages=["ignoring invalid data in enroller status file: missing member "
                   "'writeCounter'"],
         check=lambda run: (run.box.root / "status.bad").read_text() == "an older one"),
    # a hostile system
    Case("services-full", root=True, enrolls=False,
         mounts=lambda box, srv: {str(box.services_dir): ("full-tmpfs", "64k")},
         messages=[re.compile(r"failed saving aws-iot service confiuration: Failed to write file "
                              r".*/services/aws-iot/service\.json\..*: write\(\) failed: No space "
                              r"left on device$")], check=acknowledged_as_error),
    Case("status-read-only", root=True, mounts=read_only_status,
         messages=lambda box: [f"could not open temporary file to save enroller status at "
                               f"{box.status_file}", DONE]),
]


class Run:
    # One case under way: its server, sandbox and daemon.

    def __init__(self, case, ca, env):
        self.case = case
        self.server = EnrollServer(ca, tls=case.tls).start()
        for endpoint, fault in case.faults:
            self.server.inject(endpoint, fault)
        self.box = zeltest.Sandbox()
        mounts = case.mounts(self.box, self.server) if case.mounts else None
        if case.status is not None:
            self.box.status_file.write_bytes(case.status)
            (self.box.root / "status.bad").write_text("an older one")
        self.daemon = zeltest.Daemon(self.box.args("--retry=1", *case.args,
                                                   base_url=self.server.url), mounts=mounts,
                                     env=env)
        self.daemon.start()

    def messages(self):
        found = self.case.messages
        return found(self.box) if callable(found) else found

    def cleanup(self):
        self.daemon.cleanup()
        self.server.stop()
        self.box.cleanup()


# Also run against the arm64 build: the size cap and the redirect rules.
ARM64 = {c.id for c in CASES
         if c.id[:3].isdigit() or isinstance(c.messages, list) and TOO_BIG in c.messages}


@pytest.fixture(scope="module")
def runs(ca, request):
    # One bus for them all: the daemons that lose the race for the name go on without it.
    # Only the cases selected for this session are started.
    selected = {item.callspec.id for item in request.session.items
                if getattr(item, "originalname", None) == "test_hostile"}
    buses = zeltest.Buses().start()
    started = {case.id: Run(case, ca, buses.env) for case in CASES
               if case.id in selected and (not case.root or zeltest.is_root())}
    yield started
    for run in started.values():
        run.cleanup()
    buses.stop()


def wait_line(daemon, expected, timeout):
    regex = expected.pattern if isinstance(expected, re.Pattern) else zeltest.message_re(expected)
    return daemon.wait_for_log(regex, timeout)


@pytest.mark.parametrize("case", [
    pytest.param(c, id=c.id, marks=[pytest.mark.root] * c.root
                 + [pytest.mark.arm64] * (c.id in ARM64))
    for c in CASES])
def test_hostile(runs, case):
    run = runs[case.id]
    for expected in run.messages():
        wait_line(run.daemon, expected, timeout=40)
    if case.faults and case.retried:  # the next attempt comes, and enrolls where it can
        run.server.wait_for_request("/initiate", count=2, timeout=40)
    if case.enrolls:
        run.daemon.wait_for_message(DONE, timeout=40)
    assert run.daemon.proc.poll() is None, run.daemon.output()
    if case.check:
        assert case.check(run) is not False


# --- killed at any moment, a restart still ends enrolled with consistent files

def test_killed_at_random_moments(sandbox, start_daemon, server):
    rng = random.Random(20261123)
    for attempt in range(6):
        server.inject("/CSRVerify", Fault.delay(0.2))
        daemon = start_daemon(sandbox.args("--retry=1", base_url=server.url))
        time.sleep(rng.uniform(0.8, 1.6))
        daemon.stop(signal.SIGKILL)
        status = sandbox.status_file.read_text()
        assert json.loads(status)["enabled"] is True, status
        service = sandbox.services_dir / "aws-iot" / "service.json"
        if service.exists():
            json.loads(service.read_text())
    daemon = start_daemon(sandbox.args("--retry=1", base_url=server.url))
    if not json.loads(sandbox.status_file.read_text())["enrolled"]:
        daemon.wait_for_message(DONE, timeout=20)
    else:
        daemon.wait_for_message("current enrolled status: true")
    assert json.loads(sandbox.status_file.read_text())["enrolled"] is True
    certificate = json.loads((sandbox.services_dir / "aws-iot" / "service.json").read_text())[
        "certificate"]
    public = subprocess.run(["openssl", "x509", "-pubkey", "-noout"], input=certificate.encode(),
                            capture_output=True, check=True).stdout
    assert public == subprocess.run(["openssl", "pkey", "-pubout", "-in", str(sandbox.key)],
                                    capture_output=True, check=True).stdout
