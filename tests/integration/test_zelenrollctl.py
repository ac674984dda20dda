# zelenrollctl against the real daemon on the private buses of the `buses` fixture.

import contextlib
import datetime
import json
import re
import subprocess
import time

import pytest
import tpmsim
import zeltest
from cryptography.hazmat.primitives import serialization
from enrollserver import EnrollServer
from enrollserver.faults import Fault
from zeltest import BUILD_DIR, DBUS_NAME, DBUS_PATH, enroller_property, wait_until

CTL = BUILD_DIR / "tools" / "zelenrollctl" / "zelenrollctl"
DONE = "enrollment completed successfully"
FAILED_ATTEMPT = r"WARNING \*\*: .*InternalServerError"
DAY = datetime.timedelta(days=1)


def ctl(sandbox, *args, mounts=None):
    command = [str(CTL), f"--status-file={sandbox.status_file}",
               f"--services-dir={sandbox.services_dir}", f"--key={sandbox.key}",
               *[str(a) for a in args]]
    return subprocess.run(zeltest.namespace_command(command, mounts), stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, timeout=60)


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


@pytest.mark.arm64
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
    assert (before["statusFile"]["enrolled"], before["statusFile"]["lastEnrolledTStamp"],
            before["certificate"]["present"]) == (False, None, False)
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
    assert list(diagnosis)[:4] == ["enrolled", "disabled", "base_url", "protocols"], diagnosis
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


@pytest.mark.parametrize("args,code", [
    *[(args, 3) for args in [["status"], ["status", "--json"], ["trigger"], ["diagnose"],
                             ["wait", "--timeout=0.5"], ["renew-if-due"]]],
    *[(args, 2) for args in [[], ["bogus"], ["status", "extra"], ["trigger", "--json"],
                             ["wait", "--timeout=-1"], ["renew-if-due", "--fraction=0"],
                             ["renew-if-due", "--fraction=nan"]]]])
def test_daemon_absent_or_bad_usage(sandbox, args, code):
    done = ctl(sandbox, *args)
    one_error_line(done, code, "daemon not reachable" if code == 3 else "")
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


@pytest.mark.parametrize("flag,why", [
    ("--enable", "the daemon is enrolling already"), ("--disable", "enrollment is disabled")])
def test_renew_if_due_leaves_an_unenrolled_daemon_alone(sandbox, start_daemon, flag, why):
    start_daemon(sandbox.args(flag, "--retry=3600"))
    assert wait_until(name_owned, 5)
    done = ctl(sandbox, "renew-if-due")
    assert done.returncode == 0 and done.stdout == f"nothing to do: {why}\n", done
    assert ctl_json(sandbox, "diagnose")["disabled"] is (flag == "--disable")


def device_cert(ca, sandbox, start, end):
    key = serialization.load_pem_private_key(sandbox.key.read_bytes(), None)
    now = datetime.datetime.now(datetime.timezone.utc)
    return ca.issue_cert(key.public_key(), now + start * DAY, now + end * DAY)


@pytest.mark.parametrize("certificate,args,renewed,why", [  # certificate None: no file
    (False, [], False, "nothing to do: certificate valid until"),
    (lambda ca, box: device_cert(ca, box, -70, 30), [], True,
     "renewing: certificate passed 66% of its validity"),
    (lambda ca, box: device_cert(ca, box, -70, 30), ["--fraction=0.9"], False, "renewal due"),
    (lambda ca, box: device_cert(ca, box, -100, -1), [], True, "renewing: certificate expired"),
    (lambda ca, box: ca.issue_unrelated_cert(), [], True,
     "renewing: certificate does not match the device key"),
    (lambda ca, box: None, [], True, "renewing: no stored certificate"),
    (lambda ca, box: "not a certificate", [], True, "renewing: unreadable certificate")],
    ids=["fresh", "past-two-thirds", "not-past-fraction", "expired", "other-key", "missing",
         "garbage"])
def test_renew_if_due(sandbox, start_daemon, server, ca, certificate, args, renewed, why):
    # A short base interval keeps the spacing of requests after a trigger short.
    daemon = start_daemon(sandbox.args("--retry=1", base_url=server.url))
    daemon.wait_for_message(DONE, timeout=15)
    service_file = sandbox.services_dir / "aws-iot" / "service.json"
    if certificate:
        service = dict(json.loads(service_file.read_text()), certificate=certificate(ca, sandbox))
        if service["certificate"] is None:
            service_file.unlink()
        else:
            service_file.write_text(json.dumps(service))

    done = ctl(sandbox, "renew-if-due", *args)
    assert done.returncode == 0 and why in done.stdout, (done.stdout, done.stderr)
    assert ("re-enrollment triggered" in done.stdout) == renewed
    if renewed:
        server.wait_for_request("/initiate", count=2)
        assert wait_until(lambda: daemon.log.count(re.escape(DONE) + "$") == 2, 15)
    else:
        assert sum(r.path.endswith("/initiate") for r in server.requests) == 1


# --- check: one broken precondition per sandbox, then a device where everything holds

def check_lines(sandbox, *args, user="nobody", mounts=None):
    """`zelenrollctl check` as the daemon's `user` would see the sandbox."""
    return ctl(sandbox, "check", f"--branding={sandbox.branding}", "--proxy=", f"--user={user}",
               *args, mounts=mounts)


def private_copy(sandbox, path):
    """A copy of `path` that only root may read."""
    copy = sandbox.root / "private" / path.name
    copy.parent.mkdir(exist_ok=True)
    copy.write_bytes(path.read_bytes())
    copy.chmod(0o600)
    return copy


def future_cert_services(sandbox, ca):
    service = {"certificate": device_cert(ca, sandbox, 1, 30)}
    sandbox.write("future/aws-iot/service.json", json.dumps(service))
    return sandbox.root / "future"


def tls_url(stack, ca):
    server = EnrollServer(ca, tls=True).start()
    stack.callback(server.stop)
    return server.url


def rpmb_node(sandbox):
    node = sandbox.root / "rpmb-node"
    subprocess.run(["mknod", str(node), "c", "1", "3"], check=True)
    node.chmod(0o600)
    return node


ROOT_ONLY = "(owner root, group root, mode 0600)"
CHECK_CASES = {  # (arguments, check, what it found: {root} the sandbox)
    "missing key": (lambda box, ca, stack: [f"--key={box.root / 'none.key'}"], "device key",
                    "'{root}/none.key': No such file or directory"),
    "key unreadable by the user": (
        lambda box, ca, stack: [f"--key={private_copy(box, box.key)}"], "device key",
        f"user 'nobody' may not read '{{root}}/private/device.key' {ROOT_ONLY}"),
    "wrong-mode RPMB node": (
        lambda box, ca, stack: [f"--rpmb={rpmb_node(box)}", "--protocol=emmc-rpmb-csr"], "RPMB",
        f"user 'nobody' may not read and write '{{root}}/rpmb-node' {ROOT_ONLY}"),
    "unparsable status file": (
        lambda box, ca, stack: [f"--status-file={box.write('bad-status', '{')}"], "status file",
        "'{root}/bad-status' cannot be parsed (failed to parse JSON ...): the daemon keeps it "
        "as '...' at its next start and forgets the enrollment and RPMB history"),
    "clock before the certificate": (
        lambda box, ca, stack: [f"--services-dir={future_cert_services(box, ca)}"], "clock",
        "... is before the stored certificate's validity, which starts ..."),
    "no TPM": (lambda box, ca, stack: ["--protocol=tpm2-authkey-csr"], "TPM",
               "no TPM answers through the default TCTI: ..."),
    "server of an unknown CA": (
        lambda box, ca, stack: ["--connect", f"--base-url={tls_url(stack, ca)}"], "server",
        "https://127.0.0.1:...: the server's certificate is not signed by a CA of the CA bundle"),
    "daemon absent": (lambda box, ca, stack: [], "daemon",
                      f"not running: nobody owns {DBUS_NAME} on the system bus"),
}


def line_re(level, name, found):
    """The exact line, "..." standing for one run of text without a blank line."""
    pattern = re.escape(f"{level:<7} {name:<12} {found}").replace(r"\.\.\.", ".+?")
    return pattern + ("; fix: .+" if level != "ok" else "")


@pytest.mark.root
@pytest.mark.parametrize("case", CHECK_CASES)
def test_check_names_the_broken_precondition(nobody_sandbox, start_daemon, ca, case):
    box = nobody_sandbox
    make_args, name, found = CHECK_CASES[case]
    netns = tpmsim.NetNamespace() if case == "no TPM" else None  # no simulator answers
    try:
        if case != "daemon absent":
            start_daemon(box.args("--retry=3600"))
            assert wait_until(name_owned, 5)
        with contextlib.ExitStack() as stack:
            done = check_lines(box, *make_args(box, ca, stack))
    finally:
        if netns:
            netns.leave()
    errors = [line for line in done.stdout.splitlines() if line.startswith("error")]
    assert done.returncode == 1 and len(errors) == 1, done.stdout + done.stderr
    found = found.format(root=box.root)
    assert re.fullmatch(line_re("error", name, found), errors[0]), errors[0]


@pytest.mark.root
def test_check_all_green(sandbox, start_daemon, ca, swtpm):
    box = sandbox  # the daemon runs as root, which owns the sandbox
    server = EnrollServer(ca, tls=True).start()  # after swtpm: in its network namespace
    try:
        rpmb = box.root / "rpmb"
        subprocess.run([str(BUILD_DIR / "tools" / "rpmbsim"), "create", str(rpmb), "1",
                        "--new-key", str(box.root / "rpmb-key")], check=True, capture_output=True)
        branding = box.write_branding(enrollRootUrl=server.url)
        mounts = {"/etc/ssl/certs/ca-certificates.crt":
                  box.write("ca-bundle.crt", server.ca_file.read_text())}
        daemon = start_daemon(box.args(base_url=False, branding=branding), mounts=mounts)
        daemon.wait_for_message(DONE, timeout=15)
        done = check_lines(box, "--json", "--connect", f"--rpmb={rpmb}",
                           "--protocol=emmc-rpmb-csr", "--protocol=tpm2-authkey-csr",
                           user="root", mounts=mounts)
    finally:
        server.stop()
    report = json.loads(done.stdout)
    assert done.returncode == 0 and report["warnings"] == report["errors"] == 0, done.stdout
    assert [c["check"] for c in report["checks"]] == [
        "daemon user", "branding", "device key", "certificate", "clock", "CA bundle", "proxy",
        "server", "status file", "services dir", "RPMB", "TPM", "daemon"]
    found = {c["check"]: c["found"] for c in report["checks"]}
    assert found["CA bundle"].endswith(": 1 certificate") and "handshake done" in found["server"]
    assert found["RPMB"].endswith("write counter 0, 500 writes left; writes in the last 1 days "
                                  "0/10, 10 days 0/20, 180 days 0/30, 365 days 0/50")
    assert found["TPM"].endswith("will be created at the next attempt")
    assert found["daemon"].endswith(", enrolled")
