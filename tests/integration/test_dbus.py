# The daemon's D-Bus object, its NetworkManager watch and the system bus policy, on the
# private buses of the `buses` fixture.

import re
import time

import pytest
from zeltest import (DBUS_NAME, DBUS_PATH, enroller_call, enroller_property, gdbus, message_re,
                     wait_until)

NM_NAME = "org.freedesktop.NetworkManager"
NM_PATH = "/org/freedesktop/NetworkManager"
FIRST_ATTEMPT_FAILED = r"WARNING \*\*: [0-9:.]+: failed to connect \(4\)"
NOT_OWNED = f"D-Bus name {DBUS_NAME} cannot be acquired or lost"

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


def has_owner(name, bus="system"):
    done = gdbus("call", "--dest", "org.freedesktop.DBus", "--object-path", "/org/freedesktop/DBus",
                 "--method", "org.freedesktop.DBus.NameHasOwner", name, bus=bus)
    return done.stdout.strip() == "(true,)"


def wait_for_name(daemon, bus="system"):
    if not wait_until(lambda: has_owner(DBUS_NAME, bus) or daemon.proc.poll() is not None, 5):
        pytest.fail("the daemon's name did not appear:\n" + daemon.output())


def as_user(user, command):
    import pwd
    entry = pwd.getpwnam(user)
    return ["setpriv", f"--reuid={entry.pw_uid}", f"--regid={entry.pw_gid}", "--clear-groups",
            *command]


@pytest.fixture
def network_manager(helpers):
    # python-dbusmock's NetworkManager on the private system bus; returns emit(signature,
    # value) sending NetworkManager's "StateChanged" from it.
    helpers(["/usr/bin/python3", "-m", "dbusmock", "--template", "networkmanager"])
    assert wait_until(lambda: has_owner(NM_NAME), 10), "dbusmock NetworkManager did not start"

    def emit(signature, value):
        done = gdbus("call", "--dest", NM_NAME, "--object-path", NM_PATH, "--method",
                     "org.freedesktop.DBus.Mock.EmitSignal", NM_NAME, "StateChanged", signature,
                     f"[<{value}>]")
        assert done.returncode == 0, done.stderr

    return emit


@pytest.mark.parametrize("signature,value,heard", [
    ("u", "uint32 70", True), ("u", "uint32 60", True), ("u", "uint32 50", False),
    ("s", "'70'", False)])
def test_network_manager_state_changed(sandbox, start_daemon, network_manager, signature,
                                       value, heard):
    daemon = start_daemon(sandbox.args("--retry=3600", "--debug"))
    daemon.wait_for_log(FIRST_ATTEMPT_FAILED)  # no request in flight from here on
    notified = message_re("received network available notification, scheduled a retry")
    before = daemon.log.count(notified)

    network_manager(signature, value)
    if signature == "s":
        daemon.wait_for_message(f"ignoring {NM_NAME}.StateChanged with badly typed "
                                "arguments (s)")
    else:
        daemon.wait_for_log(re.escape(f"got {NM_NAME}.StateChanged({value.split()[1]})") + "$")
    time.sleep(0.3)
    assert daemon.log.count(notified) == before + heard, daemon.output()


def set_state(value):
    """NetworkManager's "State" property, which GIO's monitor follows, without "StateChanged"."""
    done = gdbus("call", "--dest", NM_NAME, "--object-path", NM_PATH, "--method",
                 "org.freedesktop.DBus.Mock.SetProperty", NM_PATH, NM_NAME, "State",
                 f"<uint32 {value}>")
    assert done.returncode == 0, done.stderr


RESETS = {"trigger": (lambda nm: enroller_call("trigger"),
                      "received trigger call, enrolled status reset and scheduled a retry"),
          "StateChanged": (lambda nm: nm("u", "uint32 70"),
                           "received network available notification, scheduled a retry"),
          "GIO-monitor": (lambda nm: (set_state(20), set_state(70)),
                          "received network available notification, scheduled a retry")}


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
    wait_for_name(daemon, bus="session")
    assert not has_owner(DBUS_NAME, "system")
    assert enroller_property("enrolled", bus="session") == "false"
    # NetworkManager is still watched on the system bus.
    daemon.wait_for_log(FIRST_ATTEMPT_FAILED)
    network_manager("u", "uint32 70")
    daemon.wait_for_message("received network available notification, scheduled a retry")


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
    daemon.wait_for_log(r"CRITICAL \*\*: [0-9:.]+: " + re.escape(NOT_OWNED) + "$")
    owner.stop()
    daemon.wait_for_message(f"acquired D-Bus name {DBUS_NAME}")
    assert enroller_property("enrolled") == "false"


@pytest.mark.root
@pytest.mark.parametrize("user,allowed", [("root", True), ("nobody", False)])
def test_policy(sandbox, start_daemon, helpers, user, allowed):
    daemon = start_daemon(sandbox.args())
    wait_for_name(daemon)
    caller = None if user == "root" else user
    assert enroller_property("enrolled", user=caller) == "false"
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
    owner = helpers(as_user(user, ["/usr/bin/python3", "-c", NAME_OWNER, DBUS_NAME]))
    assert owner.log.wait_for("^(acquired|lost)$", 10).group(1) == (
        "acquired" if allowed else "lost"), owner.log.text()
