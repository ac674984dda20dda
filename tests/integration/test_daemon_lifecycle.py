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


# Daemon mode. The PID directory is the sandbox (bound over /var/run/zelenroll in a mount
# namespace), so that parallel runs do not meet.

@pytest.mark.root
def test_daemon_mode_start_second_start_kill_and_failing_child(sandbox, start_daemon):
    def daemonized(*args, code=0, env=None, **kwargs):
        # zelenrolld in daemon mode, once its first process exited with `code`
        daemon = start_daemon(sandbox.args(*args, **kwargs), daemonize=True, env=env,
                              pid_dir=sandbox.root)
        assert daemon.wait_exit() == code, daemon.output()
        return daemon

    daemon = daemonized()
    assert daemon.output() == ""  # the parent says nothing on success
    pid = daemon.wait_ready()
    assert read_pid_file(sandbox.root) == pid != daemon.pid
    assert daemon.status()["PPid"] != str(os.getpid())

    for env in (None, {"G_MESSAGES_DEBUG": "all"}):
        second = daemonized(code=1, env=env)
        second.wait_for_log(rf"zelenrolld\[\d+\]: daemon already running with PID {pid}$")
        assert read_pid_file(sandbox.root) == pid

    assert daemonized("--kill").output() == ""
    assert not process_alive(pid)
    assert not (sandbox.root / PID_FILE_NAME).exists()  # removed at exit
    daemon = daemonized("--kill", code=1)
    daemon.wait_for_log(message_re("failed to kill daemon: No such file or directory"))

    daemon = daemonized(branding=sandbox.write_branding("bad.json", contents="{}"), code=1)
    daemon.wait_for_log(r"zelenrolld\[\d+\]: forked daemon failed \(1\)$")
    assert not (sandbox.root / PID_FILE_NAME).exists()
