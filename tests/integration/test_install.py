# The installed tree: `cmake --install` into a scratch DESTDIR, then the units, bus policy,
# tmpfiles and sysusers entries, manual pages and binaries checked with the system's own
# tools.

import os
import pwd
import re
import shutil
import subprocess

import pytest
from privatebus import DBUS_POLICY
from zeltest import BUILD_DIR

UNITS = ["zelenrolld.service", "zelenroll-renew.service", "zelenroll-renew.timer"]
MAN_PAGES = ["share/man/man1/zelenrollctl.1", "share/man/man1/rpmbsim.1",
             "share/man/man8/zelenrolld.8"]
# Where systemd, udev and the bus look on this system (their pkg-config files), whatever
# the prefix; everything else under the prefix /usr.
EXPECTED = {
    "usr/sbin/zelenrolld", "usr/bin/zelenrollctl",
    *(f"lib/systemd/system/{unit}" for unit in UNITS),
    "usr/share/dbus-1/system.d/com.corvanta.ZelPlayer.Enroller1.conf",
    "usr/lib/tmpfiles.d/zelenroll.conf", "usr/lib/sysusers.d/zelenroll.conf",
    "lib/udev/rules.d/60-zelenroll-rpmb.rules", *(f"usr/{page}" for page in MAN_PAGES),
    "usr/share/doc/zelenrolld/README.md", "usr/share/doc/zelenrolld/branding.json.example"}


def run(command, **kwargs):
    return subprocess.run([str(c) for c in command], stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, timeout=120, **kwargs)


def install(destdir):  # the tree installed with prefix /usr into `destdir`
    done = run(["cmake", "--install", BUILD_DIR, "--prefix", "/usr"],
               env=dict(os.environ, DESTDIR=str(destdir)))
    assert done.returncode == 0, done.stdout + done.stderr
    return destdir


@pytest.fixture(scope="module")
def root(tmp_path_factory):
    return install(tmp_path_factory.mktemp("destdir"))


def test_tree(root):
    installed = {str(p.relative_to(root)) for p in root.rglob("*") if not p.is_dir()}
    assert installed - {"usr/bin/rpmbsim"} == EXPECTED
    assert "ExecStart=/usr/sbin/zelenrolld --no-daemon\n" in (
        root / "lib/systemd/system/zelenrolld.service").read_text()
    assert "ExecStart=/usr/bin/zelenrollctl renew-if-due\n" in (
        root / "lib/systemd/system/zelenroll-renew.service").read_text()


def test_units_verify_and_daemon_exposure(tmp_path):
    # In a root that also holds this machine's units, which the verification resolves.
    install(tmp_path)
    units = tmp_path / "lib/systemd/system"
    shutil.copytree("/lib/systemd/system", units, symlinks=True, dirs_exist_ok=True)
    done = run(["systemd-analyze", "verify", "--man=no", f"--root={tmp_path}", *UNITS])
    assert done.returncode == 0 and not done.stdout + done.stderr, done.stdout + done.stderr
    done = run(["systemd-analyze", "security", "--offline=yes", units / "zelenrolld.service"])
    exposure = re.search(r"Overall exposure level for zelenrolld.service: ([0-9.]+)",
                         done.stdout)
    assert exposure and float(exposure.group(1)) < 3.0, done.stdout + done.stderr


@pytest.mark.root
def test_users_and_directories(root, tmp_path):
    (tmp_path / "etc").mkdir()
    done = run(["systemd-sysusers", f"--root={tmp_path}",
                root / "usr/lib/sysusers.d/zelenroll.conf"])
    assert done.returncode == 0, done.stderr
    users, groups = ({line.split(":")[0]: line.split(":") for line in
                      (tmp_path / "etc" / name).read_text().splitlines()}
                     for name in ("passwd", "group"))
    uid = int(users["zelenroll"][2])
    assert "zelenroll" in groups["tss"][3].split(",")

    done = run(["systemd-tmpfiles", f"--root={tmp_path}", "--create",
                root / "usr/lib/tmpfiles.d/zelenroll.conf"])
    assert done.returncode == 0 and not done.stderr, done.stderr
    for directory in ("var/lib/zelenroll", "var/lib/zelenroll/services", "run/zelenroll"):
        assert (tmp_path / directory).stat().st_uid == uid, directory


def test_bus_policy_is_the_tested_one(root):
    policy = root / "usr/share/dbus-1/system.d/com.corvanta.ZelPlayer.Enroller1.conf"
    assert policy.read_bytes() == DBUS_POLICY.read_bytes()  # loaded by every test's bus


@pytest.mark.parametrize("page", MAN_PAGES)
def test_man_page_renders_without_warnings(root, page):
    done = run(["groff", "-man", "-Tutf8", "-P-cbou", "-ww", root / "usr" / page])
    assert done.returncode == 0 and not done.stderr and "EXIT STATUS" in done.stdout, done.stderr


@pytest.mark.root
def test_installed_daemon_switches_user_within_the_units_limits(root, nobody_sandbox,
                                                                 start_daemon):
    # The unit's capability bounding set and no-new-privileges are enough for the user
    # switch: the installed daemon run under them ends as its user and group, with
    # CAP_SYS_RAWIO only.
    unit = (root / "lib/systemd/system/zelenrolld.service").read_text()
    caps = re.search(r"^CapabilityBoundingSet=(.*)$", unit, re.M).group(1).split()
    assert "NoNewPrivileges=yes" in unit.splitlines()
    bounding = ",".join(["-all"] + ["+" + c.lower().removeprefix("cap_") for c in caps])
    daemon = start_daemon([f"--bounding-set={bounding}", "--no-new-privs",
                           root / "usr/sbin/zelenrolld",
                           *nobody_sandbox.args("--debug", user="nobody")], binary="setpriv")
    daemon.wait_ready()
    daemon.wait_for_message("switched to user 'nobody' and its groups")
    status = daemon.status()
    uid, gid = pwd.getpwnam("nobody")[2:4]
    assert (status["Uid"].split(), status["Gid"].split()) == ([str(uid)] * 4, [str(gid)] * 4)
    assert status["CapPrm"] == "0000000000020000"
    assert status["CapEff"] == status["CapInh"] == status["CapAmb"] == "0000000000000000"
    assert daemon.stop() == 0
