"""Private D-Bus buses for tests, benchmarks and the demo: a system bus with the system's
default policy plus zelenrolld's policy file, and a permissive session bus, each a
dbus-daemon on a unix socket in a temporary directory that processes of any user can reach.

Run as a program it starts both, prints their addresses as shell assignments and keeps them
until SIGTERM or SIGINT:  python3 tools/privatebus.py
"""

import os
import pwd
import select
import shutil
import signal
import subprocess
import sys
import tempfile
from pathlib import Path

import childproc

DBUS_POLICY = (Path(__file__).resolve().parents[1] / "data" / "dbus"
               / "com.corvanta.ZelPlayer.Enroller1.conf")
# The default policy of a Debian system bus, cut down to what matters here: anyone may
# connect, nobody owns a name or calls a method unless a policy file allows it.
_SYSTEM_BUS_POLICY = """
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
    <allow send_destination="org.freedesktop.DBus"
           send_interface="org.freedesktop.DBus.Introspectable"/>
    <allow send_destination="org.freedesktop.DBus"
           send_interface="org.freedesktop.DBus.Properties"/>
  </policy>
  <policy user="{user}">
    <allow own="org.freedesktop.NetworkManager"/>
    <allow send_destination="org.freedesktop.NetworkManager"/>
  </policy>
  <include>{policy}</include>
"""

# Without root, the user running the tests stands in for the daemon's user.
_DAEMON_USER_POLICY = """
  <policy user="{user}">
    <allow own="com.corvanta.ZelPlayer.Enroller1"/>
    <allow send_destination="com.corvanta.ZelPlayer.Enroller1"/>
  </policy>
"""

_SESSION_BUS_POLICY = """
  <policy context="default">
    <allow user="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
"""


class Bus:
    """A private dbus-daemon listening on a socket in `directory`: `kind` "system" has the
    system bus's default policy plus the daemon's policy file, "session" allows everything.
    Any user may connect."""

    def __init__(self, kind, directory):
        self.kind = kind
        self.directory = Path(directory)
        self.config = self.directory / f"{kind}.conf"
        self.address = None
        self.proc = None

    def start(self, timeout=5.0):
        user = pwd.getpwuid(os.geteuid()).pw_name
        policy = _SESSION_BUS_POLICY
        if self.kind == "system":
            policy = _SYSTEM_BUS_POLICY.format(user=user, policy=DBUS_POLICY)
            if os.geteuid() != 0:
                policy += _DAEMON_USER_POLICY.format(user=user)
        self.config.write_text(
            '<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"'
            ' "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">\n'
            f"<busconfig><type>{self.kind}</type>"
            f"<listen>unix:path={self.directory / self.kind}</listen>"
            f"<auth>EXTERNAL</auth>{policy}</busconfig>\n")
        with open(self.directory / f"{self.kind}.log", "wb") as log:
            self.proc = subprocess.Popen(
                ["dbus-daemon", f"--config-file={self.config}", "--print-address", "--nofork"],
                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=log)
        ready, _, _ = select.select([self.proc.stdout], [], [], timeout)
        line = self.proc.stdout.readline().decode().strip() if ready else ""
        if not line:
            self.stop()
            raise RuntimeError(f"dbus-daemon ({self.kind}) did not start: "
                               + (self.directory / f"{self.kind}.log").read_text())
        self.address = line
        return self

    def stop(self):
        childproc.stop(self.proc)
        if self.proc and self.proc.stdout:
            self.proc.stdout.close()


class Buses:
    """A private system bus and session bus in one temporary directory. `env` holds the
    variables pointing clients at them."""

    def __init__(self):
        self.directory = Path(tempfile.mkdtemp(prefix="zel-bus-"))
        os.chmod(self.directory, 0o755)  # reachable for processes of other users
        self.system = Bus("system", self.directory)
        self.session = Bus("session", self.directory)

    def start(self):
        try:
            self.system.start()
            self.session.start()
        except Exception:
            self.stop()
            raise
        return self

    @property
    def env(self):
        return {"DBUS_SYSTEM_BUS_ADDRESS": self.system.address,
                "DBUS_SESSION_BUS_ADDRESS": self.session.address}

    def stop(self):
        self.session.stop()
        self.system.stop()
        shutil.rmtree(self.directory, ignore_errors=True)



def main():
    buses = Buses().start()
    try:
        for name, value in buses.env.items():
            print(f"{name}='{value}'", flush=True)
        signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
        signal.pause()
    except KeyboardInterrupt:
        pass
    finally:
        buses.stop()


if __name__ == "__main__":
    main()
