"""Start-up of zelenrolld: command line, option checks and the foreground run."""

import re
import subprocess

import pytest

from zeltest import DAEMON


def run(args, timeout=10):
    """Runs zelenrolld to completion; (exit code, standard output and error together)."""
    done = subprocess.run([str(DAEMON), *map(str, args)], stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=timeout)
    return done.returncode, done.stdout.decode(errors="replace")


INDENT = "\n" + " " * 26


def test_help_shows_the_parameter_text_and_the_options():
    code, out = run(["--help"])
    assert code == 0
    usage = out.splitlines()[1]
    assert usage.startswith("  zelenrolld [OPTION") and usage.endswith("] ZEL device enroller")
    for text in [
        "  -B, --base-url=URL      The base URL for enrollment requests, default is"
        + INDENT + "read from branding file.\n",
        "  -R, --rpmb=RPMBPATH     The RPMB device to use, or base name of a simulated"
        + INDENT + "RPMB created with rpmbsim; default is" + INDENT + "/dev/mmcblk0rpmb\n",
        "  --no-daemon             Do not daemonize.\n",
        "  -u, --user=USER         User to run as, default is zelenroll; its groups"
        + INDENT + "are used.\n",
        "  --force-new-cert        Force to obtain a new certificate, for testing only.\n\n"
        "  --protocol=PROTO        Add PROTO to the list of advertised protocols.",
        "  --enable                Enable enrollment, enrollment requests will be sent.",
        "  --no-switch-user        Run as the current user, do not switch user.\n",
    ]:
        assert text in out
    # Every option is listed, in the order of the table.
    names = ["--base-url", "--serial", "--model", "--brand", "--fwver", "--rpmb", "--key",
             "--branding", "--user-serial", "--board-serial", "--system-serial",
             "--chassis-serial", "--status-file", "--services-dir", "--proxy", "--no-daemon",
             "--user", "--kill", "--use-session-bus", "--retry", "--timeout", "--disable",
             "--force-new-cert", "--protocol", "--enable", "--dump-http", "--debug",
             "--no-switch-user"]
    positions = [out.find(name + ("=" if name not in FLAGS else " ")) for name in names]
    assert -1 not in positions
    assert positions == sorted(positions)


FLAGS = {"--no-daemon", "--kill", "--use-session-bus", "--disable", "--force-new-cert",
         "--enable", "--debug", "--no-switch-user"}


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


def test_option_checks_come_in_order(sandbox):
    code, out = run(sandbox.args("--dump-http=9", f"--key={sandbox.root}", "--retry=-1",
                                 "--timeout=-1", "--no-daemon"))
    assert code == 1
    assert out.strip().endswith("invalid level 9 for HTTP dumping"), out

    code, out = run(sandbox.args(f"--key={sandbox.root}", "--retry=-1", "--no-daemon"))
    assert code == 1
    assert out.strip().endswith(
        f"key file '{sandbox.root}' does not exist or is not a file"), out

    code, out = run(sandbox.args("--retry=-1", "--timeout=-1", "--no-daemon"))
    assert code == 1
    assert out.strip().endswith("invalid retry timeout value -1"), out


def test_missing_key_file_is_refused(sandbox):
    missing = sandbox.root / "nothing.key"
    code, out = run(sandbox.args(f"--key={missing}"))
    assert code == 1
    assert f"key file '{missing}' does not exist or is not a file" in out


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
