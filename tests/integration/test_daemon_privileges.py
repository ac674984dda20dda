"""The user switch and the capabilities zelenrolld keeps."""

import pwd

import pytest

from zeltest import message_re

pytestmark = pytest.mark.root


def test_runs_as_the_user_with_only_cap_sys_rawio_permitted(nobody_sandbox, start_daemon):
    nobody = pwd.getpwnam("nobody")
    daemon = start_daemon(nobody_sandbox.args("--debug", user="nobody"))
    daemon.wait_ready()
    daemon.wait_for_log(message_re("switched to user 'nobody' and its groups"))
    status = daemon.status()
    assert status["Uid"].split() == [str(nobody.pw_uid)] * 4
    assert status["Gid"].split() == [str(nobody.pw_gid)] * 4
    assert status["CapPrm"] == "0000000000020000"  # CAP_SYS_RAWIO only
    assert status["CapEff"] == "0000000000000000"
    assert status["CapInh"] == "0000000000000000"
    assert status["CapAmb"] == "0000000000000000"
    assert daemon.stop() == 0


def test_without_user_switch_root_keeps_only_cap_sys_rawio(sandbox, start_daemon):
    daemon = start_daemon(sandbox.args())
    daemon.wait_ready()
    status = daemon.status()
    assert status["Uid"].split()[0] == "0"
    assert (status["CapPrm"], status["CapEff"], status["CapInh"]) == (
        "0000000000020000", "0000000000000000", "0000000000000000")
    assert daemon.stop() == 0


def test_missing_user_stops_start_up(sandbox, start_daemon):
    daemon = start_daemon(sandbox.args(user="no-such-user-zel"))
    assert daemon.wait_exit() == 1
    daemon.wait_for_log(
        r"CRITICAL \*\*: [0-9:.]+: failed switching to user 'no-such-user-zel': no such user$")


def test_the_user_needs_access_to_the_services_dir(sandbox, start_daemon):
    # The sandbox belongs to root: nobody cannot create the marker after the switch.
    daemon = start_daemon(sandbox.args("--disable", user="nobody"))
    assert daemon.wait_exit() == 1
    daemon.wait_for_log(r"failed to create disabled services file: .*Permission denied")
