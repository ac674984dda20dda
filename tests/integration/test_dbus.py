# The daemon's D-Bus object, its NetworkManager watch and the system bus policy, on the
# private buses of the `buses` fixture.

import pwd
import re
import time

import pytest
from zeltest import (DBUS_NAME, DBUS_PATH, enroller_call, enroller_property, gdbus, message_re,
                     wait_until)

NM_NAME = "org.freedesktop.NetworkManager"
NM_PATH = "/org/freedesktop/NetworkManager"
NETWORK_HEARD = "received network available notification, scheduled a retry"

# Owns a bus name and says "acquired", or says "lost"; its end gives the name up.
NAME_OWNER = """
import sys
from gi.repository import Gio, GLib
Gio.bus_own_name(Gio.BusType.SYSTEM, sys.argv[1], Gio.BusNameOwnerFlags.DO_NOT_QUEUE, None,
                 lambda *_: print("acquired", flush=True), lambda *_: print("lost", flush=True))
GLib.MainLoop().run()
"""


@pytest.fixture
def network_manager(helpers):
    # python-dbusmock's NetworkManager on the private system bus; returns mock(method, *args)
    # calling a method of its interface org.freedesktop.DBus.Mock.
    helpers(["/usr/bin/python3", "-m", "dbusmock", "--template", "networkmanager"])
    exported = ("introspect", "--dest", NM_NAME, "--object-path", NM_PATH)
    assert wait_until(lambda: gdbus(*exported).returncode == 0, 10), "dbusmock did not start"

    def mock(method, *args):
        done = gdbus("call", "--dest", NM_NAME, "--object-path", NM_PATH, "--method",
                     f"org.freedesktop.DBus.Mock.{method}", *args)
        assert done.returncode == 0, done.stderr

    return mock


def state_changed(signature, value):  # the mock's arguments emitting "StateChanged"
    return "EmitSignal", NM_NAME, "StateChanged", signature, f"[<{value}>]"


@pytest.mark.parametrize("signature,value,heard", [
    ("u", "uint32 70", True), ("u", "uint32 60", True), ("u", "uint32 50", False),
    ("s", "'70'", False)])
def test_network_manager_state_changed(sandbox, start_daemon, network_manager, signature,
                                       value, heard):
    # On the session bus (row 70) NetworkManager is still watched on the system bus.
    session = value == "uint32 70"
    daemon = start_daemon(sandbox.args("--retry=3600", "--debug", *["--use-session-bus"] * session))
    if session:
        assert wait_until(lambda: enroller_property("enrolled", bus="session"), 5) == "false"
        assert enroller_property("enrolled") is None
    # no request in flight once the first attempt failed
    daemon.wait_for_log(r"WARNING \*\*: [0-9:.]+: failed to connect \(4\)")
    before = daemon.log.count(message_re(NETWORK_HEARD))

    network_manager(*state_changed(signature, value))
    if signature == "s":
        daemon.wait_for_message(f"ignoring {NM_NAME}.StateChanged with badly typed arguments (s)")
    else:
        daemon.wait_for_log(re.escape(f"got {NM_NAME}.StateChanged({value.split()[1]})") + "$")
    time.sleep(0.3)
    assert daemon.log.count(message_re(NETWORK_HEARD)) == before + heard, daemon.output()


RESETS = {"trigger": (lambda nm: enroller_call("trigger"),
                      "received trigger call, enrolled status reset and scheduled a retry"),
          "StateChanged": (lambda nm: nm(*state_changed("u", "uint32 70")), NETWORK_HEARD),
          # the "State" property, which GIO's monitor follows, without "StateChanged"
          "GIO-monitor": (lambda nm: [nm("SetProperty", NM_PATH, NM_NAME, "State",
                                         f"<uint32 {v}>") for v in (20, 70)], NETWORK_HEARD)}


@pytest.mark.parametrize("how", RESETS)
def test_backoff_grows_until_reset(sandbox, start_daemon, network_manager, how):
    action, heard = RESETS[how]
    daemon = start_daemon(sandbox.args("--retry=1", "--debug"),
                          env={"GIO_USE_NETWORK_MONITOR": "networkmanager"})
    retrying = r"retrying enroll \(multiplier (\d+)\)"
    daemon.wait_for_log(r"retrying enroll \(multiplier 2\)", timeout=10)  # the next one: 4
    # a request in flight (for a moment: nothing listens) refuses or ignores the call
    for _ in range(10):
        mark = len(daemon.log.lines())
        action(network_manager)
        if daemon.log.wait_for(message_re(heard), 1, start=mark):
            break
    at = max(i for i, line in enumerate(daemon.log.lines()) if re.search(message_re(heard), line))
    assert daemon.wait_for_log(retrying, start=at).group(1) == "1", daemon.output()


def test_unreachable_bus_stops_start_up(sandbox, start_daemon):
    missing = f"unix:path={sandbox.root}/no-bus"
    daemon = start_daemon(sandbox.args(), env={"DBUS_SYSTEM_BUS_ADDRESS": missing})
    daemon.wait_for_log(r"CRITICAL \*\*: [0-9:.]+: " +
                        re.escape("failed to connect to D-Bus system bus: Could not connect: "))
    assert daemon.wait_exit() == 1


@pytest.mark.root
@pytest.mark.parametrize("user,allowed", [("root", True), ("nobody", False)])
def test_policy_and_a_name_owned_elsewhere(sandbox, start_daemon, helpers, user, allowed):
    # Only root and the daemon's user may own the name; held by root, the daemon takes it over
    # when it is released.
    entry = pwd.getpwnam(user)
    owner = helpers(["setpriv", f"--reuid={entry.pw_uid}", f"--regid={entry.pw_gid}",
                     "--clear-groups", "/usr/bin/python3", "-c", NAME_OWNER, DBUS_NAME])
    assert owner.log.wait_for("^(acquired|lost)$", 10).group(1) == (
        "acquired" if allowed else "lost"), owner.log.text()
    daemon = start_daemon(sandbox.args())
    if allowed:
        daemon.wait_for_log("CRITICAL " +
                            message_re(f"D-Bus name {DBUS_NAME} cannot be acquired or lost"))
        owner.stop()
        daemon.wait_for_message(f"acquired D-Bus name {DBUS_NAME}")
    assert wait_until(lambda: enroller_property("enrolled", user=user), 5) == "false"
    introspection = gdbus("introspect", "--dest", DBUS_NAME, "--object-path", DBUS_PATH,
                          user=user).stdout
    for member in ("trigger(out b triggered);", "diagnose(out a{sv} diagnositic);",
                   "enrolled(s service);", "readonly b enrolled", "readonly b disabled"):
        assert member in introspection, introspection
    for method in ("trigger", "diagnose"):
        done = enroller_call(method, user=user)
        assert (done.returncode == 0) == allowed, done.stderr
        assert ("org.freedesktop.DBus.Error.AccessDenied" in done.stderr) != allowed
