# How zelenrolld merges options, branding and system identity into its configuration.

import re
from pathlib import Path

import pytest
from zeltest import message_re

SUPPORTED = ("only 'emmc-rpmb-csr', 'tpm2-authkey-csr' and 'noauth-csr' enrollment protocols "
             "are supported")
INVALID = "branding file is invalid"
CORVANTA = Path("/etc/corvanta")


def branded(box, *args, contents=None, base_url=True, **fields):
    # The sandbox's arguments with a branding of `contents` or `fields`.
    return box.args(*args, base_url=base_url,
                    branding=box.write_branding("b.json", contents, **fields))


REFUSED = [  # (arguments of the sandbox, message); the base URL is logged before the checks
    (lambda b: b.args(branding=b.root / "none.json"), INVALID),
    *[(lambda b, c=c: branded(b, contents=c), INVALID) for c in [
        "", "{}", "[1, 2]", "{not json", '{"brand": "B", "model": "M", "enrollRootUrl": "x"}']],
    (lambda b: b.args("--serial=", serial=None), "no device serial number available"),
    (lambda b: b.args("--model="), "no device model available"),
    (lambda b: b.args("--brand="), "no device brand available"),
    (lambda b: b.args("--serial=", "--model=", "--brand=", serial=None),
     "no device serial number available"),
    (lambda b: b.args("--model=", "--brand="), "no device model available"),
    (lambda b: branded(b, model=""), "no device model available"),
    (lambda b: branded(b, brand=""), "no device brand available"),
    (lambda b: b.args("--protocol=foo"), SUPPORTED),
    (lambda b: b.args("--protocol=noauth-csr", "--protocol=Noauth-csr"), SUPPORTED),
    (lambda b: branded(b, enrollProtocols=["foo"]), SUPPORTED),
    (lambda b: branded(b, enrollProtocols=[]), "no enrollment protocols"),
    (lambda b: b.args("--disable", f"--services-dir={b.root / 'none'}///"),
     re.compile(r"CRITICAL \*\*: [0-9:.]+: failed to create disabled services file: ")),
    pytest.param(lambda b: b.args(user="no-such-user-zel"), re.compile(
        r"CRITICAL \*\*: [0-9:.]+: failed switching to user 'no-such-user-zel': no such user$"),
        marks=pytest.mark.root),
    # The sandbox belongs to root: nobody cannot create the marker after the switch.
    pytest.param(lambda b: b.args("--disable", user="nobody"), re.compile(
        r"failed to create disabled services file: .*Permission denied"), marks=pytest.mark.root),
]


@pytest.mark.parametrize("make,message", REFUSED)
def test_refused(sandbox, start_daemon, make, message):
    daemon = start_daemon(make(sandbox))
    assert daemon.wait_exit() == 1, daemon.output()
    daemon.wait_for_log(message.pattern if isinstance(message, re.Pattern) else message_re(message))
    # An empty option counts as given: the branding's model and brand are not used.
    assert ("using non-default enroll base URL" in daemon.output()) == (message != INVALID)


STARTED = [  # (arguments of the sandbox, the base URL message or None, marker left)
    (lambda b: b.args(base_url="http://127.0.0.1:9/api///"),
     "using non-default enroll base URL 'http://127.0.0.1:9/api///'", False),
    (lambda b: branded(b, enrollRootUrl="http://127.0.0.1:9/root//", base_url=False),
     "using default enroll base URL 'http://127.0.0.1:9/root//'", False),
    (lambda b: branded(b, enrollRootUrl="", base_url=False), "using default enroll base URL ''",
     False),
    (lambda b: branded(b, "--model=X", model=""), None, False),
    (lambda b: branded(b, "--brand=X", brand=""), None, False),
    # Options replace the branding's protocols, duplicates allowed.
    (lambda b: branded(b, "--protocol=noauth-csr", "--protocol=noauth-csr", enrollProtocols=[]),
     None, False),
    (lambda b: branded(b, "--protocol=noauth-csr", enrollProtocols=["foo"]), None, False),
    # Enabled, removing a marker that cannot exist is fine (the sandbox's is left).
    (lambda b: b.args("--enable", f"--services-dir={b.root / 'none'}"), None, True),
    (lambda b: b.args("--retry=0", "--timeout=0", "--dump-http=3"), None, False),
    # The disabled marker follows the options, then the branding (None: absent from it).
    (lambda b: branded(b, enabledByDefault=False), None, True),
    (lambda b: branded(b, enabledByDefault=None), None, True),
    (lambda b: b.args("--disable"), None, True),
    (lambda b: branded(b, "--enable", enabledByDefault=False), None, False),
    (lambda b: b.args("--enable", "--disable"), None, True),
    (lambda b: branded(b, "--disable", "--enable", enabledByDefault=False), None, False),
]


@pytest.mark.parametrize("make,message,marker_left", STARTED)
def test_started(sandbox, start_daemon, make, message, marker_left):
    marker = sandbox.services_dir / "_DISABLED"
    marker.write_text("")  # a stale marker must go when enrollment is enabled
    daemon = start_daemon(make(sandbox))
    daemon.wait_ready()
    assert daemon.stop() == 0
    assert message is None or daemon.has_message(message) and daemon.output().count("using ") == 1
    assert marker.exists() == marker_left and (not marker_left or marker.read_bytes() == b"")


# Identity read from the system, through fixture files in a private mount namespace; the
# "/initiate" request shows what the daemon made of them. No device: the start is refused.

@pytest.fixture
def corvanta():
    # /etc/corvanta, for a directory of the test bound over it: made, if missing, for the test.
    made = not CORVANTA.exists()
    CORVANTA.mkdir(exist_ok=True)
    yield
    if made:
        CORVANTA.rmdir()


@pytest.mark.root
@pytest.mark.parametrize("identifiers,cpuinfo,serial,device,firmware", [
    ("ZEL_SN=\nZEL_SN='SN 42'\nZEL_USER_SN=U\\ 1\nZEL_CHASSIS_SN=\"C 4\"\n", "processor\t: 0\n",
     None, {"serial": "SN 42", "altSerial": {"user": "U 1", "chassis": "C 4"}}, "4.7.2"),
    ("ZEL_SN=FROM-FILE\n", "processor\t: 0\nSerial\t\t: 00000000deadbeef\n", None,
     {"serial": "00000000deadbeef"}, None),
    (None, "processor\t: 0\n", None, None, None),
    ("ZEL_SN=\nZEL_USER_SN=U1\n", "Serial\t\t: \n", None, None, None),
    ("ZEL_SN='unclosed\n", "processor\t: 0\n", None, None, None),
    ("ZEL_SN=SN-FROM-FILE\n", "Serial\t\t: 00000000deadbeef\n", "", None, None),
], ids=["identifiers", "cpuinfo", "no-identifiers", "empty-values", "bad-quoting",
        "empty-option"])
def test_identity_from_the_system(sandbox, start_daemon, corvanta, server, identifiers, cpuinfo,
                                  serial, device, firmware):
    (sandbox.root / "corvanta").mkdir()
    if identifiers is not None:
        sandbox.write("corvanta/identifiers", identifiers)
    os_release = 'VERSION_ID="4.7.2"\n' if firmware else "ID=test\n"
    mounts = {CORVANTA: sandbox.root / "corvanta",
              "/proc/cpuinfo": sandbox.write("cpuinfo", cpuinfo),
              "/etc/os-release": sandbox.write("os-release", os_release)}
    args = sandbox.args("--retry=0", serial=serial, fwver=None, base_url=server.url)
    daemon = start_daemon(args, mounts=mounts)
    if device is None:
        assert daemon.wait_exit() == 1, daemon.output()
        daemon.wait_for_message("no device serial number available")
        return
    server.wait_for_request("/initiate")
    body = server.requests[0].json
    assert body["device"] == dict(device, model="MP-100", brand="Acme")
    assert body.get("firmwareVersion") == firmware
    assert daemon.has_message("no firmware version available") == (firmware is None)
