# How zelenrolld merges options, branding and system identity into its configuration.

import pytest

SUPPORTED = ("only 'emmc-rpmb-csr', 'tpm2-authkey-csr' and 'noauth-csr' enrollment protocols "
             "are supported")


def start_and_stop(start_daemon, args, **kwargs):
    # Starts the daemon, waits for its main loop and stops it; the Daemon.
    daemon = start_daemon(args, **kwargs)
    daemon.wait_ready()
    assert daemon.stop() == 0
    return daemon


def refused(start_daemon, args, message, **kwargs):
    # Starts the daemon expecting it to stop with `message` and exit code 1.
    daemon = start_daemon(args, **kwargs)
    assert daemon.wait_exit() == 1, daemon.output()
    assert daemon.has_message(message), daemon.output()
    return daemon


@pytest.mark.parametrize("option,branded,message", [
    ("http://127.0.0.1:9/api///", "x", "using non-default enroll base URL "
     "'http://127.0.0.1:9/api///'"),
    (False, "http://127.0.0.1:9/root//", "using default enroll base URL "
     "'http://127.0.0.1:9/root//'"),
    (False, "", "using default enroll base URL ''"),  # not refused at start
])
def test_base_url_option_wins_over_branding(sandbox, start_daemon, option, branded, message):
    branding = sandbox.write_branding("b.json", enrollRootUrl=branded)
    daemon = start_and_stop(start_daemon, sandbox.args(base_url=option, branding=branding))
    assert daemon.has_message(message) and daemon.output().count("using ") == 1


@pytest.mark.parametrize("contents", [None, "", "{}", "[1, 2]", "{not json",
                                      '{"brand": "B", "model": "M", "enrollRootUrl": "x"}'],
                         ids=["missing", "empty", "empty-object", "array", "broken",
                              "no-protocols"])
def test_invalid_branding_stops_start_up(sandbox, start_daemon, contents):
    branding = sandbox.root / "none.json"
    if contents is not None:
        branding = sandbox.write_branding("bad.json", contents=contents)
    daemon = refused(start_daemon, sandbox.args(branding=branding), "branding file is invalid")
    assert "using " not in daemon.output()


@pytest.mark.parametrize("args,message", [
    (["--serial="], "no device serial number available"),
    (["--model="], "no device model available"),
    (["--brand="], "no device brand available"),
    (["--serial=", "--model=", "--brand="], "no device serial number available"),
    (["--model=", "--brand="], "no device model available"),
    (["--protocol=foo"], SUPPORTED),
    (["--protocol=noauth-csr", "--protocol=Noauth-csr"], SUPPORTED),
], ids=["serial", "model", "brand", "serial-first", "model-first", "unknown-protocol",
        "protocol-case"])
def test_empty_or_unsupported_values_are_refused(sandbox, start_daemon, args, message):
    # An empty option counts as given: the branding's model and brand are not used.
    daemon = refused(start_daemon, sandbox.args(*args, serial=None if "--serial=" in args
                                                else "SN-1"), message)
    assert daemon.has_message("using non-default enroll base URL '%s'" % sandbox.base_url)


def test_branding_values_fill_in_and_are_required(sandbox, start_daemon):
    for field, message in [("model", "no device model available"),
                           ("brand", "no device brand available")]:
        branding = sandbox.write_branding(f"no-{field}.json", **{field: ""})
        refused(start_daemon, sandbox.args(branding=branding), message)
        start_and_stop(start_daemon, sandbox.args(f"--{field}=X", branding=branding))


def test_protocols_from_options_replace_branding(sandbox, start_daemon):
    none = sandbox.write_branding("none.json", enrollProtocols=[])
    refused(start_daemon, sandbox.args(branding=none), "no enrollment protocols")
    # Duplicates are allowed.
    start_and_stop(start_daemon, sandbox.args("--protocol=noauth-csr", "--protocol=noauth-csr",
                                              branding=none))
    # The branding list is not looked at when options give one.
    unknown = sandbox.write_branding("unknown.json", enrollProtocols=["foo"])
    refused(start_daemon, sandbox.args(branding=unknown), SUPPORTED)
    start_and_stop(start_daemon, sandbox.args("--protocol=noauth-csr", branding=unknown))


@pytest.mark.parametrize("enabled_by_default,args,disabled", [
    (True, [], False),
    (False, [], True),
    (None, [], True),  # absent from the branding
    (True, ["--disable"], True),
    (False, ["--enable"], False),
    (True, ["--enable", "--disable"], True),
    (False, ["--disable", "--enable"], False),
    (False, ["--enable", "--disable", "--enable"], False),
], ids=["branding-on", "branding-off", "branding-absent", "disable", "enable",
        "enable-disable", "disable-enable", "last-wins"])
def test_disabled_marker_follows_options_then_branding(sandbox, start_daemon,
                                                      enabled_by_default, args, disabled):
    branding = sandbox.write_branding("b.json", enabledByDefault=enabled_by_default)
    # A stale marker must go when enrollment is enabled.
    sandbox.disabled_marker.write_text("")
    start_and_stop(start_daemon, sandbox.args(*args, branding=branding))
    assert sandbox.disabled_marker.exists() == disabled
    if disabled:
        assert sandbox.disabled_marker.read_bytes() == b""


def test_disabled_marker_needs_the_services_dir(sandbox, start_daemon):
    missing = sandbox.root / "no-services"
    daemon = start_daemon(sandbox.args("--disable", f"--services-dir={missing}///"))
    assert daemon.wait_exit() == 1
    daemon.wait_for_log(r"CRITICAL \*\*: [0-9:.]+: failed to create disabled services file: ")
    # Enabled, removing a marker that cannot exist is fine.
    start_and_stop(start_daemon, sandbox.args("--enable", f"--services-dir={missing}"))


# Identity read from the system, through fixture files in a private mount namespace; the
# "/initiate" request shows what the daemon made of them.

@pytest.mark.root
@pytest.mark.parametrize("identifiers,cpuinfo,os_release,device,firmware", [
    ("ZEL_SN=\nZEL_SN='SN 42'\nZEL_USER_SN=U\\ 1\nZEL_CHASSIS_SN=\"C 4\"\n",
     "processor\t: 0\n", 'VERSION_ID="4.7.2"\n',
     {"serial": "SN 42", "altSerial": {"user": "U 1", "chassis": "C 4"}}, "4.7.2"),
    ("ZEL_SN=FROM-FILE\n", "processor\t: 0\nSerial\t\t: 00000000deadbeef\n", "ID=test\n",
     {"serial": "00000000deadbeef"}, None),
], ids=["identifiers", "cpuinfo"])
def test_identity_from_the_system(sandbox, start_daemon, identity, server, identifiers,
                                  cpuinfo, os_release, device, firmware):
    files = identity(identifiers=identifiers, cpuinfo=cpuinfo, os_release=os_release)
    daemon = start_daemon(sandbox.args("--retry=0", serial=None, fwver=None,
                                       base_url=server.url), mounts=files.mounts)
    server.wait_for_request("/initiate")
    body = server.requests[0].json
    assert body["device"] == dict(device, model="MP-100", brand="Acme")
    assert body.get("firmwareVersion") == firmware
    assert daemon.has_message("no firmware version available") == (firmware is None)


@pytest.mark.root
@pytest.mark.parametrize("identifiers,cpuinfo,serial", [
    (None, "processor\t: 0\n", None),
    ("ZEL_SN=\nZEL_USER_SN=U1\n", "Serial\t\t: \n", None),
    ("ZEL_SN='unclosed\n", "processor\t: 0\n", None),
    ("ZEL_SN=SN-FROM-FILE\n", "Serial\t\t: 00000000deadbeef\n", ""),
], ids=["no-identifiers", "empty-values", "bad-quoting", "empty-option"])
def test_no_serial_is_refused(sandbox, start_daemon, identity, identifiers, cpuinfo, serial):
    files = identity(identifiers=identifiers, cpuinfo=cpuinfo)
    refused(start_daemon, sandbox.args(serial=serial), "no device serial number available",
            mounts=files.mounts)
