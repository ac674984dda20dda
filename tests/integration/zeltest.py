# Helpers shared by the black-box tests of zelenrolld: where the binaries are, sandboxes
# with branding and key files, and runners for the daemon and helper processes that capture
# their output and always clean up after themselves. Every wait here is bounded in time.

import json
import os
import re
import shlex
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

import pytest

SOURCE_DIR = Path(os.environ.get("ZEL_SOURCE_DIR") or Path(__file__).resolve().parents[2])
BUILD_DIR = Path(os.environ.get("ZEL_BUILD_DIR") or SOURCE_DIR / "build")
TOOLS_DIR = SOURCE_DIR / "tools"
if str(TOOLS_DIR) not in sys.path:
    sys.path.insert(0, str(TOOLS_DIR))  # makes `import enrollserver` work

import childproc  # noqa: E402
from privatebus import Buses  # noqa: E402

# The daemon and tools under test may come from another build (a cross build), run through
# an emulator: ZEL_TARGET_BUILD_DIR and ZEL_RUNNER (e.g. "qemu-aarch64-static -L /"). The
# tests' own helpers (the MMC shim, zelenrollctl as the other side) stay those of BUILD_DIR.
TARGET_BUILD_DIR = Path(os.environ.get("ZEL_TARGET_BUILD_DIR") or BUILD_DIR)
RUNNER = shlex.split(os.environ.get("ZEL_RUNNER", ""))
NATIVE, TARGET = (BUILD_DIR, []), (TARGET_BUILD_DIR, RUNNER)
DAEMON = TARGET_BUILD_DIR / "src" / "zelenrolld"
DBUS_NAME = "com.corvanta.ZelPlayer.Enroller1"
DBUS_PATH = "/com/corvanta/ZelPlayer/Enroller1"
DBUS_INTERFACE = DBUS_NAME
PID_DIR = Path("/var/run/zelenroll")
PID_FILE_NAME = "zelenrolld.pid"

SIGNAL_BITS = (1 << (signal.SIGINT - 1)) | (1 << (signal.SIGTERM - 1))


def is_root():
    return os.geteuid() == 0


def free_port(host="127.0.0.1"):
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
        s.bind((host, 0))
        return s.getsockname()[1]


def message_re(text):  # a log line carrying exactly `text`
    return r"(: |\*\*: [0-9:.]+: )" + re.escape(text) + r"$"


def proc_status(pid):  # /proc/PID/status as a dict; empty when the process is gone
    try:
        with open(f"/proc/{pid}/status") as f:
            return dict(line.rstrip("\n").split(":\t", 1) for line in f if ":\t" in line)
    except OSError:
        return {}


def process_alive(pid):
    state = proc_status(pid).get("State", "")
    return bool(state) and not state.startswith("Z")


def build_command(build, binary, *args):
    # The command running `binary` (a path inside a build directory) of `build` (NATIVE or
    # TARGET) with `args`, through that build's runner.
    directory, runner = build
    return [*runner, str(directory / binary), *map(str, args)]


def is_zelenrolld(pid):
    try:
        if Path(os.readlink(f"/proc/{pid}/exe")).name == DAEMON.name:
            return True
        # under an emulator the process is the emulator's, the daemon its first argument
        with open(f"/proc/{pid}/cmdline", "rb") as f:
            words = f.read().split(b"\0")
        return bool(RUNNER) and len(words) > len(RUNNER) and \
            Path(words[len(RUNNER)].decode()).name == DAEMON.name
    except OSError:
        return False


def wait_until(predicate, timeout, interval=0.02):  # the predicate's last result
    deadline = time.monotonic() + timeout
    while True:
        result = predicate()
        if result or time.monotonic() >= deadline:
            return result
        time.sleep(interval)


def namespace_command(command, mounts):
    # `command` run in a private mount namespace with `mounts` ({target: source}) bound over
    # the real paths. The final exec keeps the PID of the started process.
    if not mounts:
        return list(command)
    script = ["set -e"] + [f"mount --bind {shlex.quote(str(source))} {shlex.quote(str(target))}"
                           for target, source in mounts.items()]
    script.append("exec " + " ".join(shlex.quote(str(arg)) for arg in command))
    return ["unshare", "--mount", "--propagation", "private", "/bin/sh", "-c", "\n".join(script)]


class LogLines:
    # The output lines of a process, filled by a reader thread, safe to read while filled.

    def __init__(self, stream):
        self._lines = []
        self._cond = threading.Condition()
        self.closed = False
        self.reader = threading.Thread(target=self._read, args=(stream,), daemon=True)
        self.reader.start()

    def _read(self, stream):
        for raw in stream:
            with self._cond:
                self._lines.append(raw.decode(errors="replace").rstrip("\n"))
                self._cond.notify_all()
        with self._cond:
            self.closed = True
            self._cond.notify_all()

    def lines(self):
        with self._cond:
            return list(self._lines)

    def text(self):
        return "\n".join(self.lines())

    def count(self, regex):
        pattern = re.compile(regex)
        return sum(1 for line in self.lines() if pattern.search(line))

    def wait_for(self, regex, timeout=5.0, start=0):
        # The first match of `regex` in a line from index `start` on; None after `timeout`.
        pattern = re.compile(regex)
        deadline = time.monotonic() + timeout
        index = start
        with self._cond:
            while True:
                while index < len(self._lines):
                    match = pattern.search(self._lines[index])
                    if match:
                        return match
                    index += 1
                remaining = deadline - time.monotonic()
                if remaining <= 0 or self.closed:
                    return None
                self._cond.wait(remaining)


class Daemon:
    # Runs zelenrolld with `args`, in the foreground (--no-daemon is added) unless
    # `daemonize`. Standard output and error are captured together into `log`.
    #
    # `mounts` ({target: source}) runs it in a private mount namespace with those bind
    # mounts. `pid_dir` (daemon mode) is bound over /var/run/zelenroll, so that the PID file
    # is private to the test: pass the same directory to a second instance or to kill().

    def __init__(self, args, daemonize=False, env=None, mounts=None, pid_dir=None,
                 binary=DAEMON, runner=RUNNER):
        self.args = [str(a) for a in args]
        self.daemonize = daemonize
        self.env = env
        self.mounts = dict(mounts or {})
        self.pid_dir = Path(pid_dir) if pid_dir else None
        if self.pid_dir:
            PID_DIR.mkdir(parents=True, exist_ok=True)
            self.mounts[str(PID_DIR)] = str(self.pid_dir)
        self.binary = binary
        self.runner = list(runner)
        self.log = None
        self.proc = None

    def command(self):
        args = list(self.args)
        if not self.daemonize and "--no-daemon" not in args:
            args.append("--no-daemon")
        return namespace_command(self.runner + [str(self.binary)] + args, self.mounts)

    def start(self):
        env = dict(os.environ)
        env.pop("G_MESSAGES_DEBUG", None)
        env.update(self.env or {})
        self.proc = subprocess.Popen(self.command(), stdin=subprocess.DEVNULL,
                                     stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                     env=env)
        self.log = LogLines(self.proc.stdout)
        return self

    @property
    def pid(self):  # of the started process (the parent in daemon mode)
        return self.proc.pid

    def output(self):
        return self.log.text()

    def wait_for_log(self, regex, timeout=5.0, start=0):
        # The match of `regex` in an output line; fails the test when none came in time.
        match = self.log.wait_for(regex, timeout, start)
        if not match:
            pytest.fail(f"no line matching {regex!r} within {timeout} s; output:\n"
                        + self.output())
        return match

    def wait_for_message(self, text, timeout=5.0):
        return self.wait_for_log(message_re(text), timeout)

    def has_message(self, text):
        return self.log.count(message_re(text)) > 0

    def wait_exit(self, timeout=5.0):
        # The exit code of the started process; fails the test when it did not exit.
        try:
            code = self.proc.wait(timeout)
        except subprocess.TimeoutExpired:
            pytest.fail(f"zelenrolld did not exit within {timeout} s; output:\n" + self.output())
        self.log.reader.join(2)
        return code

    def running_pid(self):
        # The PID of the running daemon: the started process in the foreground, the PID
        # file's process in daemon mode; None when there is none.
        if not self.daemonize:
            return self.pid if process_alive(self.pid) else None
        pid = read_pid_file(self.pid_dir or PID_DIR)
        return pid if pid and process_alive(pid) and is_zelenrolld(pid) else None

    def wait_ready(self, timeout=5.0):
        # Waits until the daemon's main loop handles SIGINT and SIGTERM; returns its PID.
        if self.runner:
            pytest.skip("native only: an emulator catches every signal itself, so the "
                        "daemon's own handlers cannot be seen in /proc")

        def ready():
            if not self.daemonize and self.proc.poll() is not None:
                return "exited"
            pid = self.running_pid()
            if pid and is_zelenrolld(pid):
                caught = int(proc_status(pid).get("SigCgt", "0"), 16)
                if caught & SIGNAL_BITS == SIGNAL_BITS:
                    return pid
            return None

        result = wait_until(ready, timeout)
        if not result or result == "exited":
            pytest.fail(f"zelenrolld not ready within {timeout} s ({result}); output:\n"
                        + self.output())
        return result

    def status(self):
        # /proc/PID/status of the running daemon.
        pid = self.running_pid()
        return proc_status(pid) if pid else {}

    def stop(self, sig=signal.SIGTERM, timeout=5.0):
        # Stops the daemon with `sig`, then SIGKILL if it did not exit in time. Returns the
        # exit code (negative for a signal) in the foreground; in daemon mode, where the
        # daemon is not our child, 0 when it exited on `sig` and None when it had to be
        # killed or was not running.
        if not self.daemonize:
            if self.proc.poll() is None:
                self.proc.send_signal(sig)
                try:
                    self.proc.wait(timeout)
                except subprocess.TimeoutExpired:
                    self.proc.kill()
                    self.proc.wait(timeout)
            self.log.reader.join(2)
            return self.proc.returncode
        pid = self.running_pid()
        if not pid:
            return None
        os.kill(pid, sig)
        if wait_until(lambda: not process_alive(pid), timeout):
            return 0
        os.kill(pid, signal.SIGKILL)
        wait_until(lambda: not process_alive(pid), timeout)
        return None

    def kill(self, timeout=10.0):
        # Runs `zelenrolld --kill` against this instance's PID file; (exit code, output).
        command = namespace_command(self.runner + [str(self.binary), "--kill"], self.mounts)
        done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, timeout=timeout)
        return done.returncode, done.stdout.decode(errors="replace")

    def cleanup(self):
        # Leaves nothing running: the started process and, in daemon mode, the daemon.
        if self.proc and self.proc.poll() is None:
            self.proc.kill()
            self.proc.wait(5)
        if self.daemonize:
            pid = self.running_pid()
            if pid:
                os.kill(pid, signal.SIGKILL)
                wait_until(lambda: not process_alive(pid), 5)
        if self.proc and self.proc.stdout:
            self.log.reader.join(2)
            self.proc.stdout.close()


def read_pid_file(directory=PID_DIR):
    try:
        return int((Path(directory) / PID_FILE_NAME).read_text().split()[0])
    except (OSError, ValueError, IndexError):
        return None


DEFAULT_BRANDING = {"brand": "Acme", "model": "MP-100", "enrollProtocols": ["noauth-csr"],
                    "enrollRootUrl": "http://127.0.0.1:9/enroll", "enabledByDefault": True}


class Sandbox:
    # A temporary directory with everything the daemon touches: branding, key, status
    # file, services directory, PID directory, fixture files for identity. The enroll base
    # URL points at a loopback port nothing listens on. With `owner` (a user name) the
    # whole tree is handed to that user, for runs with --user.

    def __init__(self, owner=None):
        self.root = Path(tempfile.mkdtemp(prefix="zel-"))
        os.chmod(self.root, 0o755)
        self.owner = owner
        self.branding = self.write_branding()
        self.key = self.root / "device.key"  # P-256: fast to make
        subprocess.run(["openssl", "genpkey", "-algorithm", "EC", "-pkeyopt",
                        "ec_paramgen_curve:P-256", "-out", str(self.key)], check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=30)
        self.status_file = self.root / "status"
        self.services_dir = self.root / "services"
        self.services_dir.mkdir()
        self.pid_dir = self.root / "run"
        self.pid_dir.mkdir()
        self.base_url = f"http://127.0.0.1:{free_port()}/enroll"
        self._chown()

    def _chown(self):
        if not self.owner:
            return
        import pwd
        entry = pwd.getpwnam(self.owner)
        for directory, _, files in os.walk(self.root):
            os.chown(directory, entry.pw_uid, entry.pw_gid)
            for name in files:
                os.chown(os.path.join(directory, name), entry.pw_uid, entry.pw_gid)

    def write(self, name, contents):
        # A fixture file in the sandbox (parents made).
        path = self.root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(contents)
        self._chown()
        return path

    def write_branding(self, name="branding.json", contents=None, **fields):
        # A branding file: `contents` as raw text, or DEFAULT_BRANDING updated with `fields`
        # (a field set to None is left out).
        if contents is None:
            data = {**DEFAULT_BRANDING, **fields}
            contents = json.dumps({k: v for k, v in data.items() if v is not None})
        return self.write(name, contents)

    @property
    def disabled_marker(self):
        return self.services_dir / "_DISABLED"

    def args(self, *extra, serial="SN-TEST-1", fwver="1.0", base_url=True, user=None,
             branding=None):
        # The safe argument list: sandbox paths, no proxy, no user switch unless `user`,
        # a given serial and firmware version (None leaves them to the system) and the
        # unused base URL (False leaves it to the branding). `extra` comes last.
        args = [f"--branding={branding or self.branding}", f"--key={self.key}",
                f"--status-file={self.status_file}", f"--services-dir={self.services_dir}",
                "--proxy="]
        args.append(f"--user={user}" if user else "--no-switch-user")
        if base_url:
            args.append(f"--base-url={self.base_url if base_url is True else base_url}")
        if serial is not None:
            args.append(f"--serial={serial}")
        if fwver is not None:
            args.append(f"--fwver={fwver}")
        return args + [str(a) for a in extra]

    def cleanup(self):
        shutil.rmtree(self.root, ignore_errors=True)


class IdentityFiles:
    # Fixture files standing in for the system's identity sources inside a private mount
    # namespace: pass `mounts` to Daemon. The identifiers file is replaced by binding a
    # directory over /etc/corvanta (made, empty, only if missing, and removed again by
    # cleanup()), so that it can also be absent.

    CORVANTA_DIR = Path("/etc/corvanta")

    def __init__(self, sandbox, identifiers=None, cpuinfo="processor\t: 0\n",
                 os_release='NAME="Test"\nVERSION_ID="4.7.2"\n'):
        self.created_corvanta = False
        if not self.CORVANTA_DIR.exists():
            self.CORVANTA_DIR.mkdir()
            self.created_corvanta = True
        corvanta = sandbox.root / "identity" / "corvanta"
        corvanta.mkdir(parents=True, exist_ok=True)
        if identifiers is not None:
            (corvanta / "identifiers").write_text(identifiers)
        self.mounts = {
            str(self.CORVANTA_DIR): str(corvanta),
            "/proc/cpuinfo": str(sandbox.write("identity/cpuinfo", cpuinfo)),
            "/etc/os-release": str(sandbox.write("identity/os-release", os_release)),
        }

    def cleanup(self):
        if self.created_corvanta:
            try:
                self.CORVANTA_DIR.rmdir()
            except OSError:
                pass


def gdbus(*args, bus="system", user=None, timeout=10):
    # `gdbus ARGS --system|--session`, as `user` if given (through setpriv); the finished
    # process with its text output.
    command = ["gdbus", args[0], f"--{bus}", *[str(a) for a in args[1:]]]
    if user:
        import pwd
        entry = pwd.getpwnam(user)
        command = ["setpriv", f"--reuid={entry.pw_uid}", f"--regid={entry.pw_gid}",
                   "--clear-groups", *command]
    return subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          timeout=timeout)


def enroller_call(method, *args, bus="system", user=None):
    # Calls `method` (INTERFACE.MEMBER, or a member of the daemon's interface).
    if "." not in method:
        method = f"{DBUS_INTERFACE}.{method}"
    return gdbus("call", "--dest", DBUS_NAME, "--object-path", DBUS_PATH, "--method", method,
                 *args, bus=bus, user=user)


def enroller_property(name, bus="system", user=None):
    # The daemon's property `name` as gdbus prints it ("true"/"false"); None on failure.
    done = enroller_call("org.freedesktop.DBus.Properties.Get", DBUS_INTERFACE, name, bus=bus,
                         user=user)
    match = re.fullmatch(r"\(<(.*)>,\)", done.stdout.strip())
    return match.group(1) if done.returncode == 0 and match else None


class Process:
    # A helper process whose output lines are collected in `log` (LogLines).

    def __init__(self, command):
        self.proc = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                     stderr=subprocess.STDOUT)
        self.log = LogLines(self.proc.stdout)

    def stop(self):
        childproc.stop(self.proc)
        self.log.reader.join(2)
        self.proc.stdout.close()
