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
FIRST_ATTEMPT_FAILED = r"WARNING \*\*: [0-9:.]+: failed to connect \(4\)"
NETWORK_HEARD = "received network available notification, scheduled a retry"

# Owns a bus name, says "acquired" or "lost", and gives it up on SIGTERM.
NAME_OWNER = """
import signal, sys
from gi.repository import Gio, GLib
loop = GLib.MainLoop()
Gio.bus_own_name(Gio.BusType.SYSTEM, sys.argv[1], Gio.BusNameOwnerFlags.DO_NOT_QUEUE, None,
                 lambda c, n: print("acquired", flush=True),
                 lambda c, n: print("lost", flush=True))
GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, signal.SIGTERM, loop.quit)
loop.run()
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
    daemon = start_daemon(sandbox.args("--retry=3600", "--debug"))
    daemon.wait_for_log(FIRST_ATTEMPT_FAILED)  # no request in flight from here on
    before = daemon.log.count(message_re(NETWORK_HEARD))

    network_manager(*state_changed(signature, value))
    if signature == "s":
        daemon.wait_for_message(f"ignoring {NM_NAME}.StateChanged with badly typed "
                                "arguments (s)")
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


def test_session_bus(sandbox, start_daemon, network_manager):
    daemon = start_daemon(sandbox.args("--use-session-bus", "--retry=3600"))
    assert wait_until(lambda: enroller_property("enrolled", bus="session") == "false", 5), \
        daemon.output()
    assert enroller_property("enrolled") is None
    # NetworkManager is still watched on the system bus.
    daemon.wait_for_log(FIRST_ATTEMPT_FAILED)
    network_manager(*state_changed("u", "uint32 70"))
    daemon.wait_for_message(NETWORK_HEARD)


def test_unreachable_bus_stops_start_up(sandbox, start_daemon):
    missing = f"unix:path={sandbox.root}/no-bus"
    daemon = start_daemon(sandbox.args(), env={"DBUS_SYSTEM_BUS_ADDRESS": missing})
    daemon.wait_for_log(r"CRITICAL \*\*: [0-9:.]+: " +
                        re.escape("failed to connect to D-Bus system bus: Could not connect: "))
    assert daemon.wait_exit() == 1


def test_name_owned_elsewhere_is_taken_over_when_released(sandbox, start_daemon, helpers):
    owner = helpers(["/usr/bin/python3", "-c", NAME_OWNER, DBUS_NAME])
    assert owner.log.wait_for("^acquired$", 10), owner.log.text()
    daemon = start_daemon(sandbox.args())
    daemon.wait_for_log("CRITICAL " +
                        message_re(f"D-Bus name {DBUS_NAME} cannot be acquired or lost"))
    owner.stop()
    daemon.wait_for_message(f"acquired D-Bus name {DBUS_NAME}")
    assert enroller_property("enrolled") == "false"


@pytest.mark.root
@pytest.mark.parametrize("user,allowed", [("root", True), ("nobody", False)])
def test_policy(sandbox, start_daemon, helpers, user, allowed):
    daemon = start_daemon(sandbox.args())
    caller = None if user == "root" else user
    assert wait_until(lambda: enroller_property("enrolled", user=caller) == "false", 5), \
        daemon.output()
    introspection = gdbus("introspect", "--dest", DBUS_NAME, "--object-path", DBUS_PATH,
                          user=caller).stdout
    for member in ("trigger(out b triggered);", "diagnose(out a{sv} diagnositic);",
                   "enrolled(s service);", "readonly b enrolled", "readonly b disabled"):
        assert member in introspection, introspection
    for method in ("trigger", "diagnose"):
        done = enroller_call(method, user=caller)
        assert (done.returncode == 0) == allowed, done.stderr
        if not allowed:
            assert "org.freedesktop.DBus.Error.AccessDenied" in done.stderr
    # Only root and the daemon's user may own the name.
    daemon.stop()
    entry = pwd.getpwnam(user)
    owner = helpers(["setpriv", f"--reuid={entry.pw_uid}", f"--regid={entry.pw_gid}",
                     "--clear-groups", "/usr/bin/python3", "-c", NAME_OWNER, DBUS_NAME])
    assert owner.log.wait_for("^(acquired|lost)$", 10).group(1) == (
        "acquired" if allowed else "lost"), owner.log.text()
