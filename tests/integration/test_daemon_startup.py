# Start-up of zelenrolld: command line, option checks and the foreground run.

import re
import subprocess

import pytest

from zeltest import SOURCE_DIR, TARGET, build_command


def run(args, timeout=10):
    # Runs zelenrolld to completion; (exit code, standard output and error together).
    done = subprocess.run(build_command(TARGET, "src/zelenrolld", *args), stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=timeout)
    return done.returncode, done.stdout.decode(errors="replace")


def options(text, line_re):
    # {long option: short option or None} of the lines of `text` that match `line_re`.
    found = {}
    for line in text.splitlines():
        if re.match(line_re, line):
            for short, long in re.findall(r"(?:-(\w)`?, `?)?--([\w-]+)", line):
                found[long] = short or None
    return found


def test_help_lists_the_options_of_the_readme():
    code, out = run(["--help"])
    assert code == 0 and "ZEL device enroller" in out.splitlines()[1], out
    readme = (SOURCE_DIR / "README.md").read_text().split("### Options", 1)[1].split("###")[0]
    documented = options(readme, r"\| `-")
    assert len(documented) == 28
    assert options(out, r"  -") == dict(documented, help="h")


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
