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


def install(prefix, destdir=None):
    env = dict(os.environ)
    env.pop("DESTDIR", None)
    if destdir:
        env["DESTDIR"] = str(destdir)
    done = run(["cmake", "--install", BUILD_DIR, "--prefix", prefix], env=env)
    assert done.returncode == 0, done.stdout + done.stderr


@pytest.fixture(scope="module")
def root(tmp_path_factory):
    # The tree installed with prefix /usr into a DESTDIR.
    destdir = tmp_path_factory.mktemp("destdir")
    install("/usr", destdir)
    return destdir


@pytest.fixture(scope="module")
def usr(root):
    return root / "usr"


def test_tree(root):
    installed = {str(p.relative_to(root)) for p in root.rglob("*") if not p.is_dir()}
    assert installed - {"usr/bin/rpmbsim"} == EXPECTED
    assert "ExecStart=/usr/sbin/zelenrolld --no-daemon\n" in (
        root / "lib/systemd/system/zelenrolld.service").read_text()
    assert "ExecStart=/usr/bin/zelenrollctl renew-if-due\n" in (
        root / "lib/systemd/system/zelenroll-renew.service").read_text()


def test_units_verify_and_daemon_exposure(tmp_path):
    # In a root that also holds this machine's units, which the verification resolves.
    install("/usr", tmp_path)
    units = tmp_path / "lib/systemd/system"
    shutil.copytree("/lib/systemd/system", units, symlinks=True, dirs_exist_ok=True)
    done = run(["systemd-analyze", "verify", "--man=no", f"--root={tmp_path}", *UNITS])
    assert done.returncode == 0 and not done.stdout + done.stderr, done.stdout + done.stderr
    done = run(["systemd-analyze", "security", "--offline=yes", units / "zelenrolld.service"])
    exposure = re.search(r"Overall exposure level for zelenrolld.service: ([0-9.]+)",
                         done.stdout)
    assert exposure and float(exposure.group(1)) < 3.0, done.stdout + done.stderr


@pytest.mark.root
def test_users_and_directories(usr, tmp_path):
    (tmp_path / "etc").mkdir()
    done = run(["systemd-sysusers", f"--root={tmp_path}", usr / "lib/sysusers.d/zelenroll.conf"])
    assert done.returncode == 0, done.stderr
    users, groups = ({line.split(":")[0]: line.split(":") for line in
                      (tmp_path / "etc" / name).read_text().splitlines()}
                     for name in ("passwd", "group"))
    uid = int(users["zelenroll"][2])
    assert "zelenroll" in groups["tss"][3].split(",")

    done = run(["systemd-tmpfiles", f"--root={tmp_path}", "--create",
                usr / "lib/tmpfiles.d/zelenroll.conf"])
    assert done.returncode == 0 and not done.stderr, done.stderr
    for directory in ("var/lib/zelenroll", "var/lib/zelenroll/services", "run/zelenroll"):
        assert (tmp_path / directory).stat().st_uid == uid, directory


def test_bus_policy_is_the_tested_one(usr):
    policy = usr / "share/dbus-1/system.d/com.corvanta.ZelPlayer.Enroller1.conf"
    assert policy.read_bytes() == DBUS_POLICY.read_bytes()  # loaded by every test's bus


@pytest.mark.parametrize("page", MAN_PAGES)
def test_man_page_renders_without_warnings(usr, page):
    done = run(["groff", "-man", "-Tutf8", "-P-cbou", "-ww", usr / page])
    assert done.returncode == 0 and not done.stderr and "EXIT STATUS" in done.stdout, done.stderr


@pytest.mark.root
def test_installed_daemon_switches_user_within_the_units_limits(usr, nobody_sandbox,
                                                                 start_daemon):
    # The unit's capability bounding set and no-new-privileges are enough for the user
    # switch: the installed daemon run under them ends as its user with CAP_SYS_RAWIO.
    unit = (usr.parent / "lib/systemd/system/zelenrolld.service").read_text()
    caps = re.search(r"^CapabilityBoundingSet=(.*)$", unit, re.M).group(1).split()
    assert "NoNewPrivileges=yes" in unit.splitlines()
    bounding = ",".join(["-all"] + ["+" + c.lower().removeprefix("cap_") for c in caps])
    daemon = start_daemon([f"--bounding-set={bounding}", "--no-new-privs", usr / "sbin/zelenrolld",
                           *nobody_sandbox.args(user="nobody")], binary="setpriv")
    daemon.wait_ready()
    status = daemon.status()
    assert status["Uid"].split()[0] == str(pwd.getpwnam("nobody").pw_uid)
    assert (status["CapPrm"], status["CapEff"]) == ("0000000000020000", "0000000000000000")
    assert daemon.stop() == 0
