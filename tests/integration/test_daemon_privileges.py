# The user switch and the capabilities zelenrolld keeps.

import pwd

import pytest

from zeltest import message_re

pytestmark = pytest.mark.root


@pytest.mark.parametrize("user", ["nobody", None])
def test_runs_as_the_user_with_only_cap_sys_rawio_permitted(sandbox, nobody_sandbox,
                                                            start_daemon, user):
    box = nobody_sandbox if user else sandbox
    daemon = start_daemon(box.args("--debug", user=user))
    daemon.wait_ready()
    uid, gid = (pwd.getpwnam(user)[2:4]) if user else (0, 0)
    if user:
        daemon.wait_for_log(message_re(f"switched to user '{user}' and its groups"))
    status = daemon.status()
    assert status["Uid"].split() == [str(uid)] * 4
    assert status["Gid"].split() == [str(gid)] * 4
    assert status["CapPrm"] == "0000000000020000"  # CAP_SYS_RAWIO only
    assert status["CapEff"] == status["CapInh"] == status["CapAmb"] == "0000000000000000"
    assert daemon.stop() == 0

