# zelenrollctl against the real daemon on the private buses of the `buses` fixture.

import datetime
import json
import re
import subprocess
import time

import pytest
from cryptography.hazmat.primitives import serialization
from enrollserver.faults import Fault
from zeltest import BUILD_DIR, DBUS_NAME, DBUS_PATH, enroller_property, wait_until

CTL = BUILD_DIR / "tools" / "zelenrollctl" / "zelenrollctl"
DONE = "enrollment completed successfully"
FAILED_ATTEMPT = r"WARNING \*\*: .*InternalServerError"
DAY = datetime.timedelta(days=1)


def ctl(sandbox, *args, timeout=30):
    command = [str(CTL), f"--status-file={sandbox.status_file}",
               f"--services-dir={sandbox.services_dir}", f"--key={sandbox.key}",
               *[str(a) for a in args]]
    return subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          timeout=timeout)


def ctl_json(sandbox, *args):
    done = ctl(sandbox, *args, "--json")
    assert done.returncode == 0, done.stderr
    return json.loads(done.stdout)


def one_error_line(done, code, text):
    assert done.returncode == code, (done.stdout, done.stderr)
    assert re.fullmatch(r"zelenrollctl: [^\n]*\n", done.stderr), done.stderr
    assert text in done.stderr


def name_owned():
    return enroller_property("enrolled") is not None


def initiates(server):
    return sum(r.path.endswith("/initiate") for r in server.requests)


@pytest.fixture
def enrolled(sandbox, start_daemon, server):
    # A short base interval keeps the spacing of requests after a trigger short.
    daemon = start_daemon(sandbox.args("--retry=1", base_url=server.url))
    daemon.wait_for_message(DONE, timeout=15)
    return daemon


def test_status_wait_diagnose_trigger_and_the_enrolled_signal(sandbox, start_daemon, server,
                                                              helpers):
    monitor = helpers(["gdbus", "monitor", "--system", "--dest", DBUS_NAME])
    # The first attempt fails, so that the state before enrolling can be read.
    server.inject("/initiate", Fault.error(500, "InternalServerError"))
    daemon = start_daemon(sandbox.args("--retry=2", base_url=server.url))
    daemon.wait_for_log(FAILED_ATTEMPT)
    assert wait_until(name_owned, 5) and enroller_property("enrolled") == "false"
    before = ctl_json(sandbox, "status")
    assert before["daemon"] == {"running": True, "enrolled": False, "disabled": False}
    assert before["statusFile"]["enrolled"] is False
    assert before["statusFile"]["lastEnrolledTStamp"] is None
    assert before["certificate"]["present"] is False
    assert "running, not enrolled" in ctl(sandbox, "status").stdout
    one_error_line(ctl(sandbox, "wait", "--timeout=0.2"), 4, "not enrolled within 0.2 s")

    # The retry enrolls while waiting.
    done = ctl(sandbox, "wait", "--timeout=20")
    assert done.returncode == 0 and done.stdout == "enrolled\n", (done.stderr, daemon.output())
    after = ctl_json(sandbox, "status")
    assert after["daemon"]["enrolled"] is True and enroller_property("enrolled") == "true"
    signal_re = re.escape(f"{DBUS_PATH}: {DBUS_NAME}.enrolled ('aws-iot',)")
    assert monitor.log.wait_for(signal_re, 5)
    state = after["statusFile"]
    assert state["enrolled"] and state["lastEnrollBaseURL"] == server.url
    assert state["lastEnrolledTStamp"] is not None and state["forcedEnrollTStamp"] is None
    assert state["rpmb"] == {"writeCounter": 0, "maxWriteCounter": 500, "writes": [
        {"days": d, "count": 0, "limit": n} for d, n in ((1, 10), (10, 20), (180, 30), (365, 50))]}
    cert = after["certificate"]
    assert cert["present"] and cert["matchesKey"] and cert["daysLeft"] in (364, 365)
    assert "CN=SN-TEST-1" in cert["subject"] and "Zel Test Root" in cert["issuer"]
    text = ctl(sandbox, "status").stdout
    assert "running, enrolled" in text and "matches key:       yes" in text

    diagnosis = ctl_json(sandbox, "diagnose")
    assert diagnosis["enrolled"] is True and diagnosis["base_url"] == server.url
    assert diagnosis["protocols"] == ["noauth-csr"]
    assert diagnosis["pubkey"].startswith("-----BEGIN PUBLIC KEY-----")
    assert f"base_url: {server.url}\n" in ctl(sandbox, "diagnose").stdout

    done = ctl(sandbox, "trigger")
    assert done.returncode == 0 and done.stdout == "re-enrollment triggered\n", done.stderr
    daemon.wait_for_message("received trigger call, enrolled status reset and scheduled a retry")
    assert ctl_json(sandbox, "status")["statusFile"]["forcedEnrollTStamp"] is not None
    server.wait_for_request("/initiate", count=3)
    assert ctl(sandbox, "wait", "--timeout=20").returncode == 0
    # each enrollment signals once
    assert wait_until(lambda: monitor.log.count(signal_re) == 2, 15), monitor.log.text()
    time.sleep(0.5)
    assert monitor.log.count(signal_re) == 2


def test_trigger_refused_while_a_request_is_in_flight(sandbox, start_daemon, server):
    server.inject("/initiate", Fault.delay(3))
    daemon = start_daemon(sandbox.args(base_url=server.url))
    server.wait_for_request("/initiate")
    one_error_line(ctl(sandbox, "trigger"), 1, "trigger refused")
    daemon.wait_for_message("received trigger call but enrollment is ongoing")
    assert "forcedEnrollTStamp" not in json.loads(sandbox.status_file.read_text())


@pytest.mark.parametrize("args", [
    ["status"], ["status", "--json"], ["trigger"], ["diagnose"], ["wait", "--timeout=0.5"],
    ["renew-if-due"]])
def test_daemon_absent(sandbox, args):
    done = ctl(sandbox, *args)
    one_error_line(done, 3, "daemon not reachable")
    if args == ["status"]:
        assert "not running" in done.stdout and "absent (never enrolled)" in done.stdout
    if args == ["status", "--json"]:
        assert json.loads(done.stdout)["daemon"]["running"] is False


@pytest.mark.parametrize("contents,error", [
    ("{", "failed to parse JSON"), ('{"enrolled": true, "rpmb": {}}', "missing member "
                                     "'writeCounter'")])
def test_invalid_status_file(sandbox, start_daemon, contents, error):
    start_daemon(sandbox.args("--retry=3600"))
    assert wait_until(name_owned, 5)
    bad = sandbox.write("bad-status", contents)
    done = ctl(sandbox, "status", f"--status-file={bad}")
    one_error_line(done, 1, "invalid status file")
    assert error in done.stderr and "invalid: " in done.stdout


@pytest.mark.parametrize("args", [
    [], ["bogus"], ["status", "extra"], ["trigger", "--json"], ["wait", "--timeout=-1"],
    ["renew-if-due", "--fraction=0"], ["renew-if-due", "--fraction=nan"]])
def test_usage_errors(sandbox, args):
    done = ctl(sandbox, *args)
    assert done.returncode == 2 and re.fullmatch(r"zelenrollctl: [^\n]*\n", done.stderr), done


@pytest.mark.parametrize("flag,why", [
    ("--enable", "the daemon is enrolling already"), ("--disable", "enrollment is disabled")])
def test_renew_if_due_leaves_an_unenrolled_daemon_alone(sandbox, start_daemon, flag, why):
    start_daemon(sandbox.args(flag, "--retry=3600"))
    assert wait_until(name_owned, 5)
    done = ctl(sandbox, "renew-if-due")
    assert done.returncode == 0 and done.stdout == f"nothing to do: {why}\n", done


def device_cert(ca, sandbox, start, end, other_key=False):
    if other_key:
        return ca.issue_unrelated_cert()
    key = serialization.load_pem_private_key(sandbox.key.read_bytes(), None)
    now = datetime.datetime.now(datetime.timezone.utc)
    return ca.issue_cert(key.public_key(), now + start * DAY, now + end * DAY)


@pytest.mark.parametrize("case,args,renewed,why", [
    ("fresh", [], False, "nothing to do: certificate valid until"),
    ("past two thirds", [], True, "renewing: certificate passed 66% of its validity"),
    ("past two thirds", ["--fraction=0.9"], False, "renewal due"),
    ("expired", [], True, "renewing: certificate expired"),
    ("other key", [], True, "renewing: certificate does not match the device key"),
    ("missing", [], True, "renewing: no stored certificate"),
    ("garbage", [], True, "renewing: unreadable certificate")])
def test_renew_if_due(sandbox, server, ca, enrolled, case, args, renewed, why):
    service_file = sandbox.services_dir / "aws-iot" / "service.json"
    service = json.loads(service_file.read_text())
    validity = {"past two thirds": (-70, 30), "expired": (-100, -1)}.get(case)
    if validity:
        service["certificate"] = device_cert(ca, sandbox, *validity)
    elif case == "other key":
        service["certificate"] = device_cert(ca, sandbox, 0, 0, other_key=True)
    elif case == "garbage":
        service["certificate"] = "not a certificate"
    service_file.write_text(json.dumps(service))
    if case == "missing":
        service_file.unlink()

    done = ctl(sandbox, "renew-if-due", *args)
    assert done.returncode == 0, (done.stdout, done.stderr)
    assert why in done.stdout
    if renewed:
        assert "re-enrollment triggered" in done.stdout
        server.wait_for_request("/initiate", count=2)
        enrolled.wait_for_log(re.escape(DONE) + "$", timeout=15)
        assert wait_until(lambda: enrolled.log.count(re.escape(DONE) + "$") == 2, 15)
    else:
        assert initiates(server) == 1
