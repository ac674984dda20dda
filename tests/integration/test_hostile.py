# The daemon against a hostile enrollment server and a hostile system: redirects of every
# kind, bodies that never end or inflate, silence, dropped connections, endless interim
# answers, drips, bodies and answers of every shape, TLS, broken or unsavable status files,
# and kills at any moment.
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
from collections import namedtuple

import pytest
import zeltest
from enrollserver import EnrollServer, Fault

DONE = "enrollment completed successfully"
TOO_BIG = "response exceeds maximum size 131072, aborting request"
CANCELLED = "failed to connect (1): Cancelled"
# with --timeout=1: five times the timeout
DEADLINE = "request not completed within 5 seconds, aborting request"
PRECONDITION = ("void Enroller::req_response_cb(SoupSession*, SoupMessage*): assertion "
                "'SOUP_STATUS_IS_CLIENT_ERROR(msg->status_code) || "
                "SOUP_STATUS_IS_SERVER_ERROR(msg->status_code)' failed")
MALFORMED_307 = ["got malformed HTTP redirect with status code 307",
                 "unexpected HTTP status on response (307): Temporary Redirect"]
READER = "failed parsing enrollment response: "


def error_logged(status, phrase, *then):
    return [f"request returned error {status}: {phrase}", *then]


# One hostile situation: `faults` are (endpoint, fault) pairs injected before the start,
# `messages` the daemon's lines in order (texts, or regexes; or just one), or a function
# of the sandbox giving them; `args` the daemon's extra options. `enrolls`: the attempt
# after the fault enrolls the device; `retried`: the faults make the attempt fail. `root`:
# runs only as root; `tls`: the server speaks https. `status`: the status file's contents
# before the start; `setup(sandbox, server)` gives the daemon's mounts (or None);
# `check(run)` asserts the end state.
Case = namedtuple("Case", "id faults messages args enrolls retried root tls status setup check",
                  defaults=((), (), (), True, True, False, False, None, None, lambda run: None))


def redirect(code, endpoint, **kwargs):
    return (endpoint, Fault.redirect(code, **kwargs))


def raw(data, status=200, content_type="application/json"):
    return ("/initiate", Fault.raw(data, status, content_type))


def paths(server):
    return [record.path.rsplit("/", 1)[1] for record in server.requests]


def unexpected(answer):  # an /initiate answer of the right shape with `answer` merged in
    return ("/initiate", Fault.json({"status": "CSRRequired", "enrollmentProtocol": "noauth-csr",
                                     "cbData": "x", **answer}))


def followed(code):
    # Both POSTs were redirected and re-sent with their bodies.
    def check(run):
        r = run.server.requests
        assert [x.path for x in r] == [f"/{at}/{e}" for e in ("initiate", "CSRVerify")
                                       for at in ("enroll", "moved")] + ["/enroll/acknowledge"]
        assert r[0].body == r[1].body and r[2].body == r[3].body
    faults = [redirect(code, f"/{e}", to_path=f"/moved/{e}") for e in ("initiate", "CSRVerify")]
    return Case(f"{code}-followed", faults, [DONE], retried=False, check=check)


def one_connection_closed(run):
    assert len({r.client for r in run.server.requests}) == 1
    time.sleep(0.5)
    sockets = subprocess.run(["ss", "-Htnp"], capture_output=True, text=True).stdout
    assert f"pid={run.daemon.pid}," not in sockets


def status_kept(name, contents, message):
    # A broken status file, kept as status.bad beside the new one, which ends enrolled.
    # `message` names the status file as {p}.
    def check(run):
        assert (run.box.root / "status.bad").read_bytes() == contents
        assert json.loads(run.box.status_file.read_text())["enrolled"] is True
    kept = "keeping unreadable enroller status file {p} as {p}.bad"
    return Case(name, status=contents, check=check,
                messages=lambda box: [m.format(p=box.status_file) for m in (message, kept)])


def acknowledged_once(run):
    # Only the second attempt's acknowledgement reached the server, and it alone enrolled.
    assert all(r.method == "POST" for r in run.server.requests)
    assert len(run.server.acknowledgements) == 1 and run.daemon.log.count(DONE) == 1


CASES = [
    # redirects: only 307 and 308 are followed, never to another scheme nor down to http
    followed(307),
    followed(308),
    Case("302-acknowledge", [redirect(302, "/acknowledge", to_path="/moved/acknowledge")],
         ["unexpected HTTP status on response (302): Found"], check=acknowledged_once),
    Case("303-CSRVerify", [redirect(303, "/CSRVerify", to_path="/moved/CSRVerify")],
         "unexpected HTTP status on response (303): See Other"),
    Case("307-to-ftp", [redirect(307, "/initiate", location="ftp://127.0.0.1/")], MALFORMED_307),
    Case("307-without-location", [redirect(307, "/initiate")], MALFORMED_307),
    Case("307-loop", [redirect(307, "/initiate", to_path="/loop/initiate")] * 21,
         "failed to connect (10): Too many redirects"),
    Case("307-https-to-http", root=True, tls=True, messages=MALFORMED_307,
         faults=[redirect(307, "/initiate", location="http://127.0.0.1:9/enroll/initiate")],
         setup=lambda box, srv: {"/etc/ssl/certs/ca-certificates.crt":
                                 box.write("ca-bundle.crt", srv.ca_file.read_text())}),
    Case("tls-unknown-ca", tls=True, enrolls=False, messages=[re.compile(
        r"failed to connect \(6\): \S")], check=lambda run: run.server.requests == []),
    # transport; the size cap lets exactly 131072 bytes through
    Case("size-cap", [("/initiate", Fault.exact_size(n)) for n in (131073, 131072)],
         [TOO_BIG, CANCELLED, DONE], check=lambda run: run.daemon.log.count(TOO_BIG) == 1
         and paths(run.server) == ["initiate", "initiate", "CSRVerify", "acknowledge"]),
    Case("endless-chunks", [("/initiate", Fault.endless_chunks())], [TOO_BIG, CANCELLED]),
    Case("gzip-bomb", [("/CSRVerify", Fault.gzip(32 << 20))], [TOO_BIG, CANCELLED]),
    Case("gzip", [("/initiate", Fault.gzip())], [DONE], retried=False, check=one_connection_closed),
    Case("silent", [("/CSRVerify", Fault.delay(6))],
         "failed to connect (7): Connection terminated unexpectedly", args=("--timeout=1",)),
    # never silent for the timeout, never done: the request's deadline ends it
    Case("endless-102", [("/initiate", Fault.interim_responses(20))], [DEADLINE, CANCELLED],
         args=("--timeout=1",)),
    Case("drip", [("/CSRVerify", Fault.drip(20))], [DEADLINE, CANCELLED], args=("--timeout=1",)),
    # a POST is never re-sent on its own when its kept-alive connection turns out closed
    Case("drop-kept-alive", [("/CSRVerify", Fault.drop())],
         "failed to connect (8): Message Corrupt",
         check=lambda run: paths(run.server) == ["initiate", "CSRVerify"] * 2 + ["acknowledge"]),
    Case("status-600", [("/initiate", Fault.json({"statusCode": 600}, 600))],
         error_logged(600, "", PRECONDITION)),
    # bodies the parser or the reader refuses, or answers that stop the attempt
    Case("nested-too-deeply", [raw(b"[" * 65000 + b"]" * 65000)],
         "parsing failed: JSON values are nested too deeply"),
    Case("latin1", [raw(b'{"status": "\xe9"}')], "parsing failed: JSON data must be UTF-8 encoded"),
    Case("blank", [raw(b" \r\n\t ")], "response is empty, ignoring"),
    Case("array", [raw(b"[1, 2]")], READER + "expected object in JSON but got JsonArray"),
    Case("status-number", [raw(b'{"status": 5}')],
         READER + "member 'status' does not hold a string"),
    Case("no-cbData", [raw(b'\xef\xbb\xbf{"status": "CSRRequired"}')],
         READER + "missing member 'cbData'"),
    Case("text-plain", [("/initiate", Fault.content_type("text/plain"))],
         "response is not JSON but text/plain, ignoring"),
    Case("upper-case-json", [("/initiate", Fault.content_type("APPLICATION/JSON"))], DONE,
         retried=False),
    Case("unoffered-protocol", [unexpected({"enrollmentProtocol": "emmc-rpmb-csr"})],
         "enrollment server returned unexpected protocol 'emmc-rpmb-csr'"),
    Case("wrong-protocol", [unexpected({"status": "dataAuthRequired"})],
         "enrollment server returned bad protocol 'noauth-csr', expected 'emmc-rpmb-csr'"),
    Case("unknown-status", [unexpected({"status": "pending"})],
         "unknown status 'pending' received in enroll response"),
    Case("no-services", [unexpected({"status": "enrolled"})],
         "missing enrolledServices in enrolled enroll response"),
    Case("no-aws-iot", [unexpected({"status": "enrolled", "enrolledServices": {"other": {}}})],
         "missing service in enrolled enroll response"),
    Case("ack-answer", [("/acknowledge", Fault.json({"unexpected": True}))], [re.compile(
        r"ignoring unexpected non-empty response to acknowledge request \(status 200, "
        r"length \d+, content-type application/json\)$"), DONE], retried=False),
    # error answers of every shape
    Case("error-empty", [raw(b"", 500, None)],
         error_logged(500, "Internal Server Error", "response has no content-type or no body")),
    Case("error-html", [("/CSRVerify", Fault.html_error(503))],
         error_logged(503, "Service Unavailable", "response is not JSON but text/html, ignoring")),
    Case("error-types", [raw(b'{"statusCode": "x", "code": 1, "time": [], "message": {}}', 418)],
         error_logged(418, "I'm a Teapot",
                      "request failed with status code: 0, code: , server time: , msg: ")),
    Case("error-broken", [raw(b'{"code": ', 502)],
         error_logged(502, "Bad Gateway", "parsing failed: <data>:1:9: Parse error: "
                                          "unexpected end of file, expected character `}'")),
    # broken status files are kept beside the new one; one that cannot be saved is no failure
    status_kept("status-garbage", b'{"enrolled": tru', "failed to parse JSON from enroller status "
                "file {p}: {p}:1:16: Parse error: unexpected identifier `tru', expected value"),
    status_kept("status-empty", b"", "enroller status file {p} is empty"),
    Case("status-partial", status=b'{"enrolled": false, "rpmb": {"writeTStamps": []}}',
         messages="ignoring invalid data in enroller status file: missing member 'writeCounter'",
         check=lambda run: (run.box.root / "status.bad").read_text() == "an older one"),
    Case("status-unsaved", setup=lambda box, _: setattr(box, "status_file", box.root / "no" / "st"),
         messages=lambda box: [f"could not open temporary file to save enroller status at "
                               f"{box.status_file}", DONE]),
]


Run = namedtuple("Run", "server box daemon")  # one case under way


def start(case, ca, env):
    server = EnrollServer(ca, tls=case.tls).start()
    for endpoint, fault in case.faults:
        server.inject(endpoint, fault)
    box = zeltest.Sandbox()
    mounts = case.setup(box, server) if case.setup else None
    if case.status is not None:
        box.status_file.write_bytes(case.status)
        (box.root / "status.bad").write_text("an older one")
    args = box.args("--retry=1", *case.args, base_url=server.url)
    return Run(server, box, zeltest.Daemon(args, mounts=mounts, env=env).start())


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
    started = {case.id: start(case, ca, buses.env) for case in CASES
               if case.id in selected and (not case.root or zeltest.is_root())}
    yield started
    for run in started.values():
        run.daemon.cleanup()
        run.server.stop()
        run.box.cleanup()
    buses.stop()


@pytest.mark.parametrize("case", [pytest.param(c, id=c.id, marks=[pytest.mark.root] * c.root
                                               + [pytest.mark.arm64] * (c.id in ARM64))
                                  for c in CASES])
def test_hostile(runs, case):
    run = runs[case.id]
    expected = case.messages(run.box) if callable(case.messages) else case.messages
    for line in [expected] if isinstance(expected, (str, re.Pattern)) else expected:
        regex = line.pattern if isinstance(line, re.Pattern) else zeltest.message_re(line)
        run.daemon.wait_for_log(regex, timeout=40)
    if case.faults and case.retried:  # the next attempt comes, and enrolls where it can
        run.server.wait_for_request("/initiate", count=2, timeout=40)
        if case.faults[0][0] == "/initiate":  # the failed attempt went no further
            assert paths(run.server)[1] == "initiate", paths(run.server)
    if case.enrolls:
        run.daemon.wait_for_message(DONE, timeout=40)
        if not (case.faults and case.retried):  # at the first attempt
            assert [r.path for r in run.server.requests].count("/enroll/initiate") == 1
    assert run.daemon.proc.poll() is None, run.daemon.output()
    assert case.check(run) is not False


# --- killed at any moment, a restart still ends enrolled with consistent files

def test_killed_at_random_moments(sandbox, start_daemon, server):
    rng = random.Random(20261123)
    service = sandbox.services_dir / "aws-iot" / "service.json"
    for attempt in range(7):  # the last one is not killed and ends enrolled
        server.inject("/CSRVerify", Fault.delay(0.2))
        daemon = start_daemon(sandbox.args("--retry=1", base_url=server.url))
        if attempt < 6:
            time.sleep(rng.uniform(0.8, 1.6))
            daemon.stop(signal.SIGKILL)
            assert json.loads(sandbox.status_file.read_text())["enabled"] is True
            if service.exists():
                json.loads(service.read_text())
    daemon.wait_for_log(zeltest.message_re(DONE) + "|current enrolled status: true$", 20)
    assert json.loads(sandbox.status_file.read_text())["enrolled"] is True

    def openssl(*args, **kwargs):
        return subprocess.run(["openssl", *args], capture_output=True, check=True, **kwargs).stdout
    certificate = json.loads(service.read_text())["certificate"].encode()
    assert openssl("x509", "-pubkey", "-noout", input=certificate) == openssl(
        "pkey", "-pubout", "-in", sandbox.key)
