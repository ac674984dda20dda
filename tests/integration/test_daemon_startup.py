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


def options(lines):
    # {(short option or "", long option)} named on `lines`.
    return {found for line in lines for found in re.findall(r"(?:-(\w)`?, `?)?--([\w-]+)", line)}


def test_help_lists_the_options_of_the_readme():
    code, out = run(["--help"])
    assert code == 0 and "ZEL device enroller" in out.splitlines()[1], out
    readme = (SOURCE_DIR / "README.md").read_text().split("### Options", 1)[1].split("###")[0]
    documented = options(line for line in readme.splitlines() if line.startswith("| `-"))
    assert len(documented) == 28
    assert options(line for line in out.splitlines() if line.startswith("  -")) == documented | {
        ("h", "help")}


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
    # Only the first failing check speaks, in this order.
    (["--dump-http=9", "--key={root}", "--retry=-1", "--timeout=-1"],
     "invalid level 9 for HTTP dumping"),
    (["--key={root}", "--retry=-1"], "key file '{root}' does not exist or is not a file"),
    (["--retry=-1", "--timeout=-1"], re.escape("invalid retry timeout value -1")),
], ids=["dump-high", "dump-negative", "retry", "timeout", "unknown", "not-a-number",
        "dump-first", "key-second", "retry-third"])
def test_bad_options_stop_before_anything_else(sandbox, args, message, daemon_mode):
    extra = [] if daemon_mode else ["--no-daemon"]
    code, out = run(sandbox.args(*(a.format(root=sandbox.root) for a in args), *extra))
    message = message.format(root=re.escape(str(sandbox.root)))
    # the one line said: nothing else was done
    assert code == 1 and re.fullmatch(r"\*\* Message: [0-9:.]+: " + message + "\n", out), out


def test_debug_turns_on_debug_messages_unless_already_configured(sandbox, start_daemon):
    for args, env, shown in [([], None, False), (["--debug"], None, True),
                             # "foo" shows no messages without a log domain
                             (["--debug"], {"G_MESSAGES_DEBUG": "foo"}, False)]:
        daemon = start_daemon(sandbox.args(*args), env=env)
        daemon.wait_ready()
        assert daemon.stop() == 0
        assert bool(re.search(r"DEBUG: .*no proxy configuration file ''$", daemon.output(),
                              re.M)) == shown, daemon.output()
