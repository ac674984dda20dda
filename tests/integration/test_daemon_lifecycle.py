"""Running and stopping zelenrolld: signals, daemonising, the PID file and --kill."""

import os
import signal

import pytest

from zeltest import PID_FILE_NAME, message_re, process_alive, read_pid_file, wait_until

TERMINATING = message_re("terminating on signal")


@pytest.mark.parametrize("signals", [[signal.SIGINT], [signal.SIGTERM],
                                     [signal.SIGINT, signal.SIGTERM],
                                     [signal.SIGTERM, signal.SIGINT]],
                         ids=["INT", "TERM", "INT-TERM", "TERM-INT"])
def test_signals_stop_the_loop_once(sandbox, start_daemon, signals):
    daemon = start_daemon(sandbox.args())
    pid = daemon.wait_ready()
    for sig in signals:
        os.kill(pid, sig)
    assert daemon.wait_exit() == 0
    assert daemon.log.count(TERMINATING) == 1, daemon.output()


# Daemon mode. The PID directory is private to each test (bound over /var/run/zelenroll
# in a mount namespace), so that parallel runs do not meet.

@pytest.mark.root
def test_daemon_starts_and_is_killed(sandbox, start_daemon):
    daemon = start_daemon(sandbox.args(), daemonize=True, pid_dir=sandbox.pid_dir)
    assert daemon.wait_exit() == 0, daemon.output()
    assert daemon.output() == ""  # the parent says nothing on success
    pid = daemon.wait_ready()
    assert read_pid_file(sandbox.pid_dir) == pid
    assert pid != daemon.pid
    status = daemon.status()
    assert status["PPid"] != str(os.getpid())

    code, out = daemon.kill()
    assert (code, out) == (0, "")
    assert not process_alive(pid)
    assert not (sandbox.pid_dir / PID_FILE_NAME).exists()  # removed at exit


@pytest.mark.root
def test_daemon_child_applies_the_configuration(sandbox, start_daemon):
    daemon = start_daemon(sandbox.args("--disable"), daemonize=True, pid_dir=sandbox.pid_dir)
    assert daemon.wait_exit() == 0, daemon.output()
    daemon.wait_ready()
    assert sandbox.disabled_marker.exists()
    assert daemon.stop() == 0


@pytest.mark.root
def test_kill_without_a_running_daemon_fails(sandbox, start_daemon):
    daemon = start_daemon(sandbox.args("--kill"), daemonize=True, pid_dir=sandbox.pid_dir)
    assert daemon.wait_exit() == 1
    daemon.wait_for_log(message_re("failed to kill daemon: No such file or directory"))


@pytest.mark.root
def test_second_start_is_refused_while_running(sandbox, start_daemon):
    first = start_daemon(sandbox.args(), daemonize=True, pid_dir=sandbox.pid_dir)
    assert first.wait_exit() == 0, first.output()
    pid = first.wait_ready()

    for mode in ({"daemonize": True}, {"daemonize": True, "env": {"G_MESSAGES_DEBUG": "all"}}):
        second = start_daemon(sandbox.args(), pid_dir=sandbox.pid_dir, **mode)
        assert second.wait_exit() == 1
        second.wait_for_log(rf"zelenrolld\[\d+\]: daemon already running with PID {pid}$")
        assert read_pid_file(sandbox.pid_dir) == pid
        assert process_alive(pid)
    assert first.stop() == 0


@pytest.mark.root
def test_parent_reports_a_child_failing_after_the_fork(sandbox, start_daemon):
    branding = sandbox.write_branding("bad.json", contents="{}")
    daemon = start_daemon(sandbox.args(branding=branding), daemonize=True,
                          pid_dir=sandbox.pid_dir)
    assert daemon.wait_exit() == 1
    daemon.wait_for_log(r"zelenrolld\[\d+\]: forked daemon failed \(1\)$")
    assert not (sandbox.pid_dir / PID_FILE_NAME).exists()


@pytest.mark.root
def test_checks_fail_before_forking(sandbox, start_daemon):
    daemon = start_daemon(sandbox.args(f"--key={sandbox.root}"), daemonize=True,
                          pid_dir=sandbox.pid_dir)
    assert daemon.wait_exit() == 1
    daemon.wait_for_log(
        message_re(f"key file '{sandbox.root}' does not exist or is not a file"))
    assert "forked" not in daemon.output()
    assert not (sandbox.pid_dir / PID_FILE_NAME).exists()


@pytest.mark.root
def test_stale_pid_file_does_not_block_a_start(sandbox, start_daemon):
    # A PID that is surely not running any more: a finished child of ours.
    pid = os.fork()
    if pid == 0:
        os._exit(0)
    os.waitpid(pid, 0)
    (sandbox.pid_dir / PID_FILE_NAME).write_text(f"{pid}\n")
    daemon = start_daemon(sandbox.args(), daemonize=True, pid_dir=sandbox.pid_dir)
    assert daemon.wait_exit() == 0, daemon.output()
    assert daemon.wait_ready() != pid
    assert daemon.stop() == 0
    assert wait_until(lambda: not (sandbox.pid_dir / PID_FILE_NAME).exists(), 2)
