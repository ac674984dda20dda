# Helpers shared by the black-box tests of zelenrolld: where the binaries are, sandboxes
# with branding and key files, and runners for the daemon and helper processes that capture
# their output and always clean up after themselves. Every wait here is bounded in time.

import json
import os
import pwd
import re
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

import pytest

SOURCE_DIR = Path(os.environ.get("ZEL_SOURCE_DIR") or Path(__file__).resolve().parents[2])
BUILD_DIR = Path(os.environ.get("ZEL_BUILD_DIR") or SOURCE_DIR / "build")
sys.path.insert(0, str(SOURCE_DIR / "tools"))  # makes `import enrollserver` work

from privatebus import Buses  # noqa: E402

# The daemon and tools under test may come from another build (a cross build), run through
# an emulator: ZEL_TARGET_BUILD_DIR and ZEL_RUNNER (e.g. "qemu-aarch64-static -L /"). The
# tests' own helpers (the MMC shim, zelenrollctl as the other side) stay those of BUILD_DIR.
RUNNER = shlex.split(os.environ.get("ZEL_RUNNER", ""))
NATIVE = (BUILD_DIR, [])
TARGET = (Path(os.environ.get("ZEL_TARGET_BUILD_DIR") or BUILD_DIR), RUNNER)
DAEMON = TARGET[0] / "src" / "zelenrolld"
DBUS_NAME = "com.corvanta.ZelPlayer.Enroller1"
DBUS_PATH = "/com/corvanta/ZelPlayer/Enroller1"
PID_DIR = Path("/var/run/zelenroll")
PID_FILE_NAME = "zelenrolld.pid"


def is_root():
    return os.geteuid() == 0


def message_re(text):  # a log line carrying exactly `text`
    return r"(: |\*\*: [0-9:.]+: )" + re.escape(text) + r"$"


def proc_status(pid):  # /proc/PID/status as a dict; empty when the process is gone
    try:
        with open(f"/proc/{pid}/status") as f:
            return dict(line.rstrip("\n").split(":\t", 1) for line in f if ":\t" in line)
    except OSError:
        return {}


def process_alive(pid):
    return proc_status(pid).get("State", "Z")[0] != "Z"


def is_zelenrolld(pid):  # under an emulator the daemon is the emulator's first argument
    try:
        words = Path(f"/proc/{pid}/cmdline").read_bytes().split(b"\0")[:len(RUNNER) + 1]
    except OSError:
        return False
    return DAEMON.name in (Path(word.decode()).name for word in words)


def build_command(build, binary, *args):
    # The command running `binary` (a path inside a build directory) of `build` (NATIVE or
    # TARGET) with `args`, through that build's runner.
    directory, runner = build
    return [*runner, str(directory / binary), *map(str, args)]


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
    script.append("exec " + shlex.join(map(str, command)))
    return ["unshare", "--mount", "--propagation", "private", "/bin/sh", "-c", "\n".join(script)]


def read_pid_file(directory=PID_DIR):
    try:
        return int((Path(directory) / PID_FILE_NAME).read_text().split()[0])
    except (OSError, ValueError, IndexError):
        return None


class LogLines:
    # The output lines of a process, filled by a reader thread, safe to read while filled.

    def __init__(self, stream):
        self._lines, self._cond, self._closed = [], threading.Condition(), False
        self.reader = threading.Thread(target=self._read, args=(stream,), daemon=True)
        self.reader.start()

    def _read(self, stream):
        for raw in stream:
            with self._cond:
                self._lines.append(raw.decode(errors="replace").rstrip("\n"))
                self._cond.notify_all()
        with self._cond:
            self._closed = True
            self._cond.notify_all()

    def lines(self):
        return list(self._lines)  # copied at once, also while the reader appends

    def text(self):
        return "\n".join(self.lines())

    def count(self, regex):
        return sum(1 for line in self.lines() if re.search(regex, line))

    def wait_for(self, regex, timeout=5.0, start=0):
        # The first match of `regex` in a line from index `start` on; None when none came
        # within `timeout` or before the output ended.
        pattern = re.compile(regex)

        def search():  # called with the lock held; looks at each line once
            nonlocal start
            new, start = self._lines[start:], max(start, len(self._lines))
            return next(filter(None, map(pattern.search, new)), None) or self._closed

        with self._cond:
            found = self._cond.wait_for(search, timeout)
        return found if isinstance(found, re.Match) else None


class Process:
    # A process whose output lines are collected in `log` (LogLines) once started.

    def __init__(self, command, env=None):
        self.command, self.env, self.proc = [*map(str, command)], env, None

    def start(self):
        self.proc = subprocess.Popen(self.command, stdin=subprocess.DEVNULL,
                                     stdout=subprocess.PIPE, stderr=subprocess.STDOUT, env=self.env)
        self.pid, self.log = self.proc.pid, LogLines(self.proc.stdout)
        return self

    def output(self):
        return self.log.text()

    def wait_exit(self, timeout=5.0):
        # The exit code; fails the test when the process did not exit in time.
        try:
            code = self.proc.wait(timeout)
        except subprocess.TimeoutExpired:
            pytest.fail(f"the process did not exit within {timeout} s; output:\n" + self.output())
        self.log.reader.join(2)
        return code

    def stop(self, sig=signal.SIGTERM):
        # Stops the process with `sig`, then SIGKILL if it did not exit in time; the exit
        # code (negative for a signal).
        if self.proc.poll() is None:
            self.proc.send_signal(sig)
            try:
                self.proc.wait(5)
            except subprocess.TimeoutExpired:
                self.proc.kill()
        code = self.wait_exit()
        self.proc.stdout.close()
        return code


class Daemon(Process):
    # Runs zelenrolld with `args`, in the foreground (--no-daemon is added) unless
    # `daemonize`, standard output and error captured together into `log`. `mounts`
    # ({target: source}) runs it in a private mount namespace with those bind mounts;
    # `pid_dir` (daemon mode) is bound over /var/run/zelenroll, so that the PID file is
    # private to the test: pass the same directory to a second instance.

    def __init__(self, args, daemonize=False, env=None, mounts=None, pid_dir=None,
                 binary=DAEMON, runner=RUNNER):
        self.daemonize, self.pid_dir, self.runner = daemonize, pid_dir, runner
        mounts = dict(mounts or {})
        if pid_dir:
            PID_DIR.mkdir(parents=True, exist_ok=True)
            mounts[str(PID_DIR)] = str(pid_dir)
        args = [*map(str, args)] + ([] if daemonize or "--no-daemon" in args else ["--no-daemon"])
        super().__init__(namespace_command([*runner, binary, *args], mounts), {
            k: v for k, v in os.environ.items() if k != "G_MESSAGES_DEBUG"} | (env or {}))

    def wait_for_log(self, regex, timeout=5.0, start=0):
        # The match of `regex` in an output line; fails the test when none came in time.
        return self.log.wait_for(regex, timeout, start) or pytest.fail(
            f"no line matching {regex!r} within {timeout} s; output:\n" + self.output())

    def wait_for_message(self, text, timeout=5.0):
        return self.wait_for_log(message_re(text), timeout)

    def has_message(self, text):
        return self.log.count(message_re(text)) > 0

    def running_pid(self):
        # The PID of the running daemon: the started process in the foreground, the PID
        # file's process in daemon mode; None when there is none.
        if not self.daemonize:
            return self.pid if process_alive(self.pid) else None
        pid = read_pid_file(self.pid_dir or PID_DIR)
        return pid if pid and is_zelenrolld(pid) else None

    def status(self):  # /proc/PID/status of the running daemon
        return proc_status(self.running_pid())

    def wait_ready(self, timeout=5.0):
        # Waits until the daemon's main loop handles SIGINT and SIGTERM; returns its PID.
        if self.runner:
            pytest.skip("native only: an emulator catches every signal itself, so the "
                        "daemon's own handlers cannot be seen in /proc")
        bits = (1 << signal.SIGINT - 1) | (1 << signal.SIGTERM - 1)

        def ready():
            if not self.daemonize and self.proc.poll() is not None:
                return "exited"
            pid = self.running_pid()
            caught = is_zelenrolld(pid) and int(proc_status(pid).get("SigCgt", "0"), 16)
            return pid if caught & bits == bits else None

        result = wait_until(ready, timeout)
        if not isinstance(result, int):
            pytest.fail(f"zelenrolld not ready within {timeout} s ({result}); output:\n"
                        + self.output())
        return result

    def cleanup(self):
        # Leaves nothing running: the started process and, in daemon mode, the daemon.
        pid = self.daemonize and self.running_pid()
        if pid:
            os.kill(pid, signal.SIGKILL)
            wait_until(lambda: not process_alive(pid), 5)
        if self.proc:
            self.stop(signal.SIGKILL)


DEFAULT_BRANDING = {"brand": "Acme", "model": "MP-100", "enrollProtocols": ["noauth-csr"],
                    "enrollRootUrl": "http://127.0.0.1:9/enroll", "enabledByDefault": True}


class Sandbox:
    # A temporary directory with everything the daemon touches: branding, key, status file,
    # services directory. The enroll base URL is that of the default branding, a loopback
    # port nothing listens on. With `owner` (a user name) the whole tree is handed to that
    # user, for runs with --user.

    def __init__(self, owner=None):
        self.root, self.owner = Path(tempfile.mkdtemp(prefix="zel-")), owner
        self.root.chmod(0o755)
        self.key = self.root / "device.key"  # P-256: fast to make
        subprocess.run(["openssl", "genpkey", "-algorithm", "EC", "-pkeyopt",
                        "ec_paramgen_curve:P-256", "-out", self.key], check=True,
                       capture_output=True, timeout=30)
        self.status_file = self.root / "status"
        self.services_dir = self.root / "services"
        self.services_dir.mkdir()
        self.branding = self.write_branding()  # also hands the tree to `owner`

    def write(self, name, contents):  # a file in the sandbox (parents made)
        path = self.root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(contents)
        for owned in [self.root, *self.root.rglob("*")] if self.owner else []:
            os.chown(owned, *pwd.getpwnam(self.owner)[2:4])
        return path

    def write_branding(self, name="branding.json", contents=None, **fields):
        # A branding file: `contents` as raw text, or DEFAULT_BRANDING updated with `fields`
        # (a field set to None is left out).
        data = {k: v for k, v in {**DEFAULT_BRANDING, **fields}.items() if v is not None}
        return self.write(name, json.dumps(data) if contents is None else contents)

    def args(self, *extra, serial="SN-TEST-1", fwver="1.0", base_url=True, user=None,
             branding=None):
        # The safe argument list: sandbox paths, no proxy, no user switch unless `user`,
        # a given serial and firmware version (None leaves them to the system) and the
        # unused base URL (False leaves it to the branding). `extra` comes last.
        if base_url is True:
            base_url = DEFAULT_BRANDING["enrollRootUrl"]
        given = {"user": user, "base-url": base_url, "serial": serial, "fwver": fwver}
        return [f"--branding={branding or self.branding}", f"--key={self.key}",
                f"--status-file={self.status_file}", f"--services-dir={self.services_dir}",
                "--proxy=", *([] if user else ["--no-switch-user"]),
                *(f"--{key}={value}" for key, value in given.items() if value not in (None, False)),
                *map(str, extra)]

    def cleanup(self):
        shutil.rmtree(self.root, ignore_errors=True)


def gdbus(*args, bus="system", user=None):
    # `gdbus ARGS --system|--session`, as `user` if given (through setpriv); the finished
    # process with its text output.
    command = ["gdbus", args[0], f"--{bus}", *map(str, args[1:])]
    if user:
        uid, gid = pwd.getpwnam(user)[2:4]
        command = ["setpriv", f"--reuid={uid}", f"--regid={gid}", "--clear-groups", *command]
    return subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          timeout=10)


def enroller_call(method, *args, bus="system", user=None):
    # Calls `method` (INTERFACE.MEMBER, or a member of the daemon's interface).
    return gdbus("call", "--dest", DBUS_NAME, "--object-path", DBUS_PATH, "--method",
                 method if "." in method else f"{DBUS_NAME}.{method}", *args, bus=bus, user=user)


def enroller_property(name, bus="system", user=None):
    # The daemon's property `name` as gdbus prints it ("true"/"false"); None on failure.
    done = enroller_call("org.freedesktop.DBus.Properties.Get", DBUS_NAME, name, bus=bus,
                         user=user)
    match = re.fullmatch(r"\(<(.*)>,\)", done.stdout.strip())
    return match.group(1) if done.returncode == 0 and match else None
