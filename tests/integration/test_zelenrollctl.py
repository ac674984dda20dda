# zelenrollctl against the real daemon on the private buses of the `buses` fixture.

import contextlib
import json
import re
import subprocess
import time
from datetime import datetime, timedelta, timezone

import pytest
import tpmsim
import zeltest
from cryptography.hazmat.primitives import serialization
from enrollserver import EnrollServer
from enrollserver.faults import Fault
from zeltest import BUILD_DIR, DBUS_NAME, DBUS_PATH, enroller_property, wait_until

CTL = BUILD_DIR / "tools" / "zelenrollctl" / "zelenrollctl"
DONE = "enrollment completed successfully"


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


@pytest.mark.arm64
def test_status_wait_diagnose_trigger_and_the_enrolled_signal(sandbox, start_daemon, server,
                                                              helpers):
    monitor = helpers(["gdbus", "monitor", "--system", "--dest", DBUS_NAME])
    # The first answer comes late: a trigger while the request is in flight is refused, and
    # the state before enrolling is read meanwhile.
    server.inject("/initiate", Fault.delay(5))
    daemon = start_daemon(sandbox.args("--retry=2", base_url=server.url))
    server.wait_for_request("/initiate")
    one_error_line(ctl(sandbox, "trigger"), 1, "trigger refused")
    daemon.wait_for_message("received trigger call but enrollment is ongoing")
    assert wait_until(lambda: enroller_property("enrolled"), 5) == "false"
    before = ctl_json(sandbox, "status")
    assert before["daemon"] == {"running": True, "enrolled": False, "disabled": False}
    assert (before["statusFile"]["enrolled"], before["statusFile"]["lastEnrolledTStamp"],
            before["certificate"]["present"]) == (False, None, False)
    assert "running, not enrolled" in ctl(sandbox, "status").stdout
    one_error_line(ctl(sandbox, "wait", "--timeout=0.2"), 4, "not enrolled within 0.2 s")

    # The late answer enrolls while waiting.
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
    assert list(diagnosis.items())[:4] == [("enrolled", True), ("disabled", False),
                                           ("base_url", server.url), ("protocols", ["noauth-csr"])]
    assert diagnosis["pubkey"].startswith("-----BEGIN PUBLIC KEY-----")
    assert f"base_url: {server.url}\n" in ctl(sandbox, "diagnose").stdout

    done = ctl(sandbox, "trigger")
    assert done.returncode == 0 and done.stdout == "re-enrollment triggered\n", done.stderr
    daemon.wait_for_message("received trigger call, enrolled status reset and scheduled a retry")
    assert ctl_json(sandbox, "status")["statusFile"]["forcedEnrollTStamp"] is not None
    server.wait_for_request("/initiate", count=2)
    assert ctl(sandbox, "wait", "--timeout=20").returncode == 0
    # each enrollment signals once
    assert wait_until(lambda: monitor.log.count(signal_re) == 2, 15), monitor.log.text()
    time.sleep(0.5)
    assert monitor.log.count(signal_re) == 2


@pytest.mark.parametrize("args,code", [
    *[(args, 3) for args in ["status", "status --json", "trigger", "diagnose",
                             "wait --timeout=0.5", "renew-if-due"]],
    *[(args, 2) for args in ["", "bogus", "status extra", "trigger --json", "wait --timeout=-1",
                             "renew-if-due --fraction=0", "renew-if-due --fraction=nan"]]])
def test_daemon_absent_or_bad_usage(sandbox, args, code):
    done = ctl(sandbox, *args.split())
    one_error_line(done, code, "daemon not reachable" if code == 3 else "")
    if args == "status":
        assert "not running" in done.stdout and "absent (never enrolled)" in done.stdout
    if args == "status --json":
        assert json.loads(done.stdout)["daemon"]["running"] is False


@pytest.mark.parametrize("flag,why,contents,error", [
    ("--enable", "the daemon is enrolling already", "{", "failed to parse JSON"),
    ("--disable", "enrollment is disabled", '{"enrolled": true, "rpmb": {}}',
     "missing member 'writeCounter'")])
def test_invalid_status_file_and_renew_if_due_of_an_unenrolled_daemon(sandbox, start_daemon, flag,
                                                                       why, contents, error):
    start_daemon(sandbox.args(flag, "--retry=3600"))
    assert wait_until(lambda: enroller_property("enrolled"), 5)
    done = ctl(sandbox, "renew-if-due")
    assert done.returncode == 0 and done.stdout == f"nothing to do: {why}\n", done
    assert ctl_json(sandbox, "diagnose")["disabled"] is (flag == "--disable")
    done = ctl(sandbox, "status", f"--status-file={sandbox.write('bad-status', contents)}")
    one_error_line(done, 1, "invalid status file")
    assert error in done.stderr and "invalid: " in done.stdout


def device_cert(start, end):  # makes a certificate of the device key, days from now
    def make(ca, box):
        key = serialization.load_pem_private_key(box.key.read_bytes(), None)
        now = datetime.now(timezone.utc)
        return ca.issue_cert(key.public_key(), now + timedelta(start), now + timedelta(end))
    return make


RENEWALS = {  # case: (makes the stored certificate, None for no file; arguments; what it says)
    "fresh": (False, [], "nothing to do: certificate valid until"),
    "past-two-thirds": (device_cert(-70, 30), [],
                        "renewing: certificate passed 66% of its validity"),
    "not-past-fraction": (device_cert(-70, 30), ["--fraction=0.9"], "renewal due"),
    "expired": (device_cert(-100, -1), [], "renewing: certificate expired"),
    "other-key": (lambda ca, box: ca.issue_unrelated_cert(), [],
                  "renewing: certificate does not match the device key"),
    "missing": (lambda ca, box: None, [], "renewing: no stored certificate"),
    "garbage": (lambda ca, box: "not a certificate", [], "renewing: unreadable certificate")}


@pytest.mark.parametrize("case", RENEWALS)
def test_renew_if_due(sandbox, start_daemon, server, ca, case):
    certificate, args, why = RENEWALS[case]
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
    assert ("re-enrollment triggered" in done.stdout) == why.startswith("renewing")
    if why.startswith("renewing"):
        server.wait_for_request("/initiate", count=2)
        assert wait_until(lambda: daemon.log.count(re.escape(DONE) + "$") == 2, 15)
    else:
        assert sum(r.path.endswith("/initiate") for r in server.requests) == 1


# --- check: one broken precondition per sandbox, then a device where everything holds

def broken(case, box, ca, stack):
    # `check` arguments breaking the precondition of `case` in the sandbox `box`, the check that
    # fails and what it found ("..." standing for one run of text without a blank line).
    if case == "missing key":
        return [f"--key={box.root}/none.key"], "device key", \
            f"'{box.root}/none.key': No such file or directory"
    root_only = "(owner root, group root, mode 0600)"
    if case == "key unreadable by the user":
        subprocess.run(["install", "-D", "-m", "600", box.key, f"{box.root}/private/device.key"],
                       check=True)
        return [f"--key={box.root}/private/device.key"], "device key", \
            f"user 'nobody' may not read '{box.root}/private/device.key' {root_only}"
    if case == "wrong-mode RPMB node":
        subprocess.run(["mknod", "-m", "600", f"{box.root}/rpmb-node", "c", "1", "3"], check=True)
        return [f"--rpmb={box.root}/rpmb-node", "--protocol=emmc-rpmb-csr"], "RPMB", \
            f"user 'nobody' may not read and write '{box.root}/rpmb-node' {root_only}"
    if case == "unparsable status file":
        return [f"--status-file={box.write('bad-status', '{')}"], "status file", \
            f"'{box.root}/bad-status' cannot be parsed (failed to parse JSON ...): the daemon " \
            "keeps it as '...' at its next start and forgets the enrollment and RPMB history"
    if case == "clock before the certificate":
        box.write("future/aws-iot/service.json",
                  json.dumps({"certificate": device_cert(1, 30)(ca, box)}))
        return [f"--services-dir={box.root}/future"], "clock", \
            "... is before the stored certificate's validity, which starts ..."
    if case == "no TPM":  # where no simulator answers
        stack.callback(tpmsim.NetNamespace().leave)
        return ["--protocol=tpm2-authkey-csr"], "TPM", \
            "no TPM answers through the default TCTI: ..."
    if case == "server of an unknown CA":
        server = EnrollServer(ca, tls=True).start()
        stack.callback(server.stop)
        return ["--connect", f"--base-url={server.url}"], "server", \
            "https://127.0.0.1:...: the server's certificate is not signed by a CA of the CA bundle"
    return [], "daemon", f"not running: nobody owns {DBUS_NAME} on the system bus"


@pytest.mark.root
@pytest.mark.parametrize("case", [
    "missing key", "key unreadable by the user", "wrong-mode RPMB node", "unparsable status file",
    "clock before the certificate", "no TPM", "server of an unknown CA", "daemon absent"])
def test_check_names_the_broken_precondition(nobody_sandbox, start_daemon, ca, case):
    box = nobody_sandbox
    if case != "daemon absent":
        start_daemon(box.args("--retry=3600"))
        assert wait_until(lambda: enroller_property("enrolled"), 5)
    with contextlib.ExitStack() as stack:
        args, name, found = broken(case, box, ca, stack)
        done = ctl(box, "check", f"--branding={box.branding}", "--proxy=", "--user=nobody", *args)
    errors = [line for line in done.stdout.splitlines() if line.startswith("error")]
    assert done.returncode == 1 and len(errors) == 1, done.stdout + done.stderr
    line = re.escape(f"{'error':<7} {name:<12} {found}").replace(r"\.\.\.", ".+?")
    assert re.fullmatch(line + "; fix: .+", errors[0]), errors[0]


@pytest.mark.root
def test_check_all_green(sandbox, start_daemon, ca, swtpm, request):
    # The daemon runs as root, which owns the sandbox; the server starts after swtpm, in its
    # network namespace.
    server = EnrollServer(ca, tls=True).start()
    request.addfinalizer(server.stop)
    rpmb = sandbox.root / "rpmb"
    subprocess.run([str(BUILD_DIR / "tools" / "rpmbsim"), "create", str(rpmb), "1", "--new-key",
                    str(sandbox.root / "rpmb-key")], check=True, capture_output=True)
    branding = sandbox.write_branding(enrollRootUrl=server.url)
    mounts = {"/etc/ssl/certs/ca-certificates.crt":
              sandbox.write("ca-bundle.crt", server.ca_file.read_text())}
    daemon = start_daemon(sandbox.args(base_url=False, branding=branding), mounts=mounts)
    daemon.wait_for_message(DONE, timeout=15)
    done = ctl(sandbox, "check", f"--branding={branding}", "--proxy=", "--user=root", "--json",
               "--connect", f"--rpmb={rpmb}", "--protocol=emmc-rpmb-csr",
               "--protocol=tpm2-authkey-csr", mounts=mounts)
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
