# Running and stopping zelenrolld: signals, daemonising, the PID file and --kill.

import os
import signal

import pytest

from zeltest import PID_FILE_NAME, message_re, process_alive, read_pid_file

TERMINATING = message_re("terminating on signal")


@pytest.mark.parametrize("signals", [[signal.SIGINT, signal.SIGTERM],
                                     [signal.SIGTERM, signal.SIGINT]], ids=["INT-TERM", "TERM-INT"])
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
def test_daemon_starts_refuses_a_second_start_and_is_killed_then_kill_fails(sandbox,
                                                                            start_daemon):
    daemon = start_daemon(sandbox.args(), daemonize=True, pid_dir=sandbox.pid_dir)
    assert daemon.wait_exit() == 0, daemon.output()
    assert daemon.output() == ""  # the parent says nothing on success
    pid = daemon.wait_ready()
    assert read_pid_file(sandbox.pid_dir) == pid
    assert pid != daemon.pid
    assert daemon.status()["PPid"] != str(os.getpid())

    for env in (None, {"G_MESSAGES_DEBUG": "all"}):
        second = start_daemon(sandbox.args(), daemonize=True, env=env, pid_dir=sandbox.pid_dir)
        assert second.wait_exit() == 1
        second.wait_for_log(rf"zelenrolld\[\d+\]: daemon already running with PID {pid}$")
        assert read_pid_file(sandbox.pid_dir) == pid

    assert daemon.kill() == (0, "")
    assert not process_alive(pid)
    assert not (sandbox.pid_dir / PID_FILE_NAME).exists()  # removed at exit
    daemon = start_daemon(sandbox.args("--kill"), daemonize=True, pid_dir=sandbox.pid_dir)
    assert daemon.wait_exit() == 1
    daemon.wait_for_log(message_re("failed to kill daemon: No such file or directory"))


@pytest.mark.root
def test_parent_reports_a_child_failing_after_the_fork(sandbox, start_daemon):
    branding = sandbox.write_branding("bad.json", contents="{}")
    daemon = start_daemon(sandbox.args(branding=branding), daemonize=True,
                          pid_dir=sandbox.pid_dir)
    assert daemon.wait_exit() == 1
    daemon.wait_for_log(r"zelenrolld\[\d+\]: forked daemon failed \(1\)$")
    assert not (sandbox.pid_dir / PID_FILE_NAME).exists()
