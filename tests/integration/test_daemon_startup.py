"""Start-up of zelenrolld: command line, option checks and the foreground run."""

import re
import subprocess

import pytest

from zeltest import TARGET, build_command


def run(args, timeout=10):
    """Runs zelenrolld to completion; (exit code, standard output and error together)."""
    done = subprocess.run(build_command(TARGET, "src/zelenrolld", *args), stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=timeout)
    return done.returncode, done.stdout.decode(errors="replace")


# The option table: long name, short name, argument name, help text lines joined by "|".
OPTIONS = [
    ("base-url", "B", "URL", "The base URL for enrollment requests, default is|"
     "read from branding file."),
    ("serial", None, "SN", "Set the device serial number; default is read from|system."),
    ("model", None, "MODEL", "Set the device model name; default is read from|branding file."),
    ("brand", None, "BRAND", "Set the device brand name; default is read from|branding file."),
    ("fwver", None, "VERSION", "Set the firmware version string; default is read from|system."),
    ("rpmb", "R", "RPMBPATH", "The RPMB device to use, or base name of a simulated|"
     "RPMB created with rpmbsim; default is|/dev/mmcblk0rpmb"),
    ("key", None, "KEY", "The private/public key pair file to create the enroll|"
     "certificate signing request; default is|/etc/pki/zelenroll/private/device-private.key"),
    ("branding", None, "FILE", "The branding file to use; default is|"
     "/usr/share/resources/default/zelenroll/branding.json"),
    ("user-serial", None, "SN", "Set the device user serial number; default is read|from system."),
    ("board-serial", None, "SN", "Set the device board serial number; default is read|"
     "from system."),
    ("system-serial", None, "SN", "Set the device system serial number; default is read|"
     "from system."),
    ("chassis-serial", None, "SN", "Set the device chassis serial number; default is read|"
     "from system."),
    ("status-file", None, "FILE", "The file where to save status, use an empty string to|"
     "disable; default is /var/lib/zelenroll/status"),
    ("services-dir", None, "DIR", "The directory under which all received service|"
     "configuration is stored; default is|/var/lib/zelenroll/services"),
    ("proxy", None, "FILE", "The proxy configuration file, use an empty string or|"
     "non-existent file to disable proxy; default is|/etc/network/zelproxy.conf"),
    ("no-daemon", None, None, "Do not daemonize."),
    ("user", "u", "USER", "User to run as, default is zelenroll; its groups|are used."),
    ("kill", "k", None, "Kill a running daemon and exit."),
    ("use-session-bus", None, None, "Use the D-Bus session bus to register objects instead|"
     "of the system bus; useful for debug."),
    ("retry", "r", "TIMEOUT", "Sets the base retry interval, in seconds, used as the|"
     "base for exponential backoff with jitter; default is|60. Zero means no retries."),
    ("timeout", None, "TIMEOUT", "Sets the timeout, in seconds, for HTTP requests,|"
     "default is 60. Zero means no timeout."),
    ("disable", None, None, "Disable enrollment, no enrollment request will be|"
     "sent. Default depends on branding."),
    ("force-new-cert", None, None, "Force to obtain a new certificate, for testing only.\n"),
    ("protocol", None, "PROTO", "Add PROTO to the list of advertised protocols.|"
     "If this options is used the protocol list from the|branding is ignored."),
    ("enable", None, None, "Enable enrollment, enrollment requests will be sent.|"
     "Default depends on branding."),
    ("dump-http", None, "LEVEL", "Dumps the HTTP traffic, LEVEL can be 0 (none),|"
     "1 (minimal), 2 (headers), 3 (all)."),
    ("debug", None, None, "Enable debugging messages. When not daemonizing it|"
     "sets G_MESSAGES_DEBUG to 'all', if not yet set."),
    ("no-switch-user", None, None, "Run as the current user, do not switch user."),
]


def test_help_lists_every_option_exactly():
    code, out = run(["--help"])
    assert code == 0
    expected = ["Usage:", "  zelenrolld [OPTION?] ZEL device enroller", "", "Help Options:",
                "  -h, --help              Show help options", "", "Application Options:"]
    for name, short, argument, text in OPTIONS:
        left = "  " + (f"-{short}, " if short else "") + f"--{name}"
        left += f"={argument}" if argument else ""
        expected.append(left.ljust(26) + text.replace("|", "\n" + " " * 26))
    # GLib may spell the placeholder with a Unicode ellipsis, depending on the locale.
    assert out.replace("[OPTION\u2026]", "[OPTION?]") == "\n".join(expected) + "\n\n"


@pytest.mark.parametrize("daemon_mode", [False, True], ids=["foreground", "daemon"])
@pytest.mark.parametrize("args,message", [
    (["--dump-http=4"], re.escape("invalid level 4 for HTTP dumping")),
    (["--dump-http=-1"], re.escape("invalid level -1 for HTTP dumping")),
    (["--retry=-1"], re.escape("invalid retry timeout value -1")),
    (["--timeout=-5"], re.escape("invalid timeout value -5")),
    (["--no-such-option"],
     re.escape("failed parsing command line: Unknown option --no-such-option")),
    # GLib's quotes around the value depend on the locale.
    (["--retry=soon"],
     "failed parsing command line: Cannot parse integer value .+soon.+ for --retry"),
], ids=["dump-high", "dump-negative", "retry", "timeout", "unknown", "not-a-number"])
def test_bad_options_stop_before_anything_else(sandbox, args, message, daemon_mode):
    extra = [] if daemon_mode else ["--no-daemon"]
    code, out = run(sandbox.args(*args, *extra))
    assert code == 1
    lines = out.splitlines()
    assert len(lines) == 1, out  # nothing else was done
    assert re.search(r"^\*\* Message: [0-9:.]+: " + message + "$", lines[0]), out


@pytest.mark.parametrize("args,last", [
    (["--dump-http=9", "--key={root}", "--retry=-1", "--timeout=-1"],
     "invalid level 9 for HTTP dumping"),
    (["--key={root}", "--retry=-1"], "key file '{root}' does not exist or is not a file"),
    (["--retry=-1", "--timeout=-1"], "invalid retry timeout value -1")])
def test_option_checks_come_in_order(sandbox, args, last):
    code, out = run(sandbox.args(*(a.format(root=sandbox.root) for a in args), "--no-daemon"))
    assert code == 1 and out.strip().endswith(last.format(root=sandbox.root)), out


def test_edge_values_are_accepted(sandbox, start_daemon):
    daemon = start_daemon(sandbox.args("--retry=0", "--timeout=0", "--dump-http=3"))
    daemon.wait_ready()
    assert daemon.stop() == 0


def test_debug_turns_on_debug_messages_unless_already_configured(sandbox, start_daemon):
    quiet = start_daemon(sandbox.args())
    quiet.wait_ready()
    assert quiet.stop() == 0
    assert "DEBUG" not in quiet.output()

    debug = start_daemon(sandbox.args("--debug"))
    debug.wait_ready()
    debug.wait_for_log(r"DEBUG: .*no proxy configuration file ''$")
    assert debug.stop() == 0

    # An existing setting is kept: "foo" shows no messages without a log domain.
    kept = start_daemon(sandbox.args("--debug"), env={"G_MESSAGES_DEBUG": "foo"})
    kept.wait_ready()
    assert kept.stop() == 0
    assert "no proxy configuration file" not in kept.output()
