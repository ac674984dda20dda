# The capabilities zelenrolld keeps; the switch to a user is checked on the installed daemon
# in test_install.

import pytest


@pytest.mark.root
def test_runs_with_only_cap_sys_rawio_permitted(sandbox, start_daemon):
    daemon = start_daemon(sandbox.args())
    daemon.wait_ready()
    status = daemon.status()
    assert status["Uid"].split() == status["Gid"].split() == ["0"] * 4
    assert status["CapPrm"] == "0000000000020000"  # CAP_SYS_RAWIO only
    assert status["CapEff"] == status["CapInh"] == status["CapAmb"] == "0000000000000000"
    assert daemon.stop() == 0
