"""Fixtures of the black-box tests; the helpers themselves are in zeltest.py."""

import pytest

import tpmtest
import zeltest


def pytest_configure(config):
    config.addinivalue_line("markers", "root: needs root (skipped otherwise)")


def pytest_collection_modifyitems(items):
    # The one way root-only tests are skipped: the `root` marker.
    skip = pytest.mark.skip(reason="needs root")
    for item in items:
        if item.get_closest_marker("root") and not zeltest.is_root():
            item.add_marker(skip)


@pytest.fixture(scope="session", autouse=True)
def daemon_binary():
    assert zeltest.DAEMON.is_file(), f"{zeltest.DAEMON} is not built (ZEL_BUILD_DIR?)"
    return zeltest.DAEMON


@pytest.fixture(autouse=True)
def buses(monkeypatch):
    """Private system and session buses for every test; the daemon and every client the
    test starts find them through the environment, never the machine's own buses."""
    for name in ("DBUS_STARTER_ADDRESS", "DBUS_STARTER_BUS_TYPE"):
        monkeypatch.delenv(name, raising=False)
    started = zeltest.Buses().start()
    for name, value in started.env.items():
        monkeypatch.setenv(name, value)
    yield started
    started.stop()


@pytest.fixture
def sandbox():
    """A Sandbox owned by the current user."""
    box = zeltest.Sandbox()
    yield box
    box.cleanup()


@pytest.fixture
def nobody_sandbox():
    """A Sandbox handed to the user nobody, for runs with --user nobody (tests marked root)."""
    box = zeltest.Sandbox(owner="nobody")
    yield box
    box.cleanup()


@pytest.fixture
def start_daemon():
    """start_daemon(args, daemonize=False, env=None, mounts=None, pid_dir=None): a started
    zeltest.Daemon. Every daemon started through it is stopped at the end of the test."""
    daemons = []

    def start(args, **kwargs):
        daemon = zeltest.Daemon(args, **kwargs)
        daemons.append(daemon)
        return daemon.start()

    yield start
    for daemon in reversed(daemons):
        daemon.cleanup()


@pytest.fixture
def identity(sandbox):
    """identity(identifiers=None, cpuinfo=..., os_release=...): zeltest.IdentityFiles in
    the sandbox; pass its `mounts` to start_daemon (tests marked root)."""
    made = []

    def make(**kwargs):
        files = zeltest.IdentityFiles(sandbox, **kwargs)
        made.append(files)
        return files

    yield make
    for files in made:
        files.cleanup()


@pytest.fixture
def helpers():
    """helpers(command): a started zeltest.Process, stopped at the end of the test."""
    started = []

    def start(command):
        started.append(zeltest.Process([str(a) for a in command]))
        return started[-1]

    yield start
    for process in reversed(started):
        process.stop()


@pytest.fixture(scope="session")
def ca(tmp_path_factory):
    """The test CA of the reference server, shared by all tests."""
    from enrollserver import TestCA
    return TestCA(tmp_path_factory.mktemp("ca"))


def _enroll_server(ca, **kwargs):
    from enrollserver import EnrollServer
    return EnrollServer(ca, **kwargs).start()


@pytest.fixture
def server(ca):
    """A reference enrollment server on loopback (plain HTTP)."""
    srv = _enroll_server(ca)
    yield srv
    srv.stop()


@pytest.fixture
def second_server(ca):
    """Another one, on its own port and base path."""
    srv = _enroll_server(ca, base_path="/v2/enroll")
    yield srv
    srv.stop()


@pytest.fixture
def swtpm():
    """A started TPM simulator (tpmtest.Swtpm) in the test's own network namespace, which
    the test's thread, the servers it makes and the processes it starts share (root only).
    Request it before the servers so that they live in the namespace too."""
    if not zeltest.is_root():
        pytest.skip("needs root (network namespace for the simulator's fixed port)")
    netns = tpmtest.NetNamespace()
    tpm = tpmtest.Swtpm()
    try:
        yield tpm.start()
    finally:
        tpm.cleanup()
        netns.leave()


@pytest.fixture
def tpm_key(swtpm):
    """(PEM public key, TPM name) of the authentication key the daemon will have, derived
    with tpm2-tools as a factory would."""
    return swtpm.provision_public_key()


@pytest.fixture
def tpm_server(ca, swtpm, tpm_key):
    """A reference server speaking "tpm2-authkey-csr" in the simulator's namespace, with
    the TPM key registered for the sandbox's default serial."""
    srv = _enroll_server(ca, protocols=("tpm2-authkey-csr",))
    srv.tpm.register("SN-TEST-1", tpm_key[0])
    yield srv
    srv.stop()
