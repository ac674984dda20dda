# Fixtures of the black-box tests; the helpers themselves are in zeltest.py.

import pytest

import zeltest  # first: puts tools/ on the module path
import tpmsim
from enrollserver import EnrollServer, TestCA


def pytest_configure(config):
    config.addinivalue_line("markers", "root: needs root (skipped otherwise)")
    config.addinivalue_line("markers", "arm64: the set run against the arm64 build under "
                            "qemu-aarch64-static (pytest -m arm64)")
    config.addinivalue_line("markers", "native(reason): cannot work under an emulator "
                            "(skipped with the reason when ZEL_RUNNER is set)")


def pytest_collection_modifyitems(items):
    # The ways tests are skipped: the `root` marker, and `native` under an emulator.
    for item in items:
        if item.get_closest_marker("root") and not zeltest.is_root():
            item.add_marker(pytest.mark.skip(reason="needs root"))
        native = item.get_closest_marker("native")
        if native and zeltest.RUNNER:
            item.add_marker(pytest.mark.skip(reason="native only: " + native.args[0]))


def kept(thing, finish):  # a fixture's value `thing`, passed to `finish` after the test
    yield thing
    finish(thing)


@pytest.fixture(scope="session", autouse=True)
def daemon_binary():
    assert zeltest.DAEMON.is_file(), f"{zeltest.DAEMON} is not built (ZEL_BUILD_DIR?)"


@pytest.fixture(autouse=True)
def buses(monkeypatch):
    # Private system and session buses for every test, found through the environment.
    for name in ("DBUS_STARTER_ADDRESS", "DBUS_STARTER_BUS_TYPE"):
        monkeypatch.delenv(name, raising=False)
    started = zeltest.Buses().start()
    for name, value in started.env.items():
        monkeypatch.setenv(name, value)
    yield from kept(started, zeltest.Buses.stop)


@pytest.fixture
def sandbox():
    yield from kept(zeltest.Sandbox(), zeltest.Sandbox.cleanup)


@pytest.fixture
def nobody_sandbox():
    # A Sandbox handed to the user nobody, for runs with --user nobody (tests marked root).
    yield from kept(zeltest.Sandbox(owner="nobody"), zeltest.Sandbox.cleanup)


def factory(kind, finish):
    # A fixture's factory of started `kind` objects, each passed to `finish` after the test.
    made = []
    yield lambda *args, **kwargs: made.append(kind(*args, **kwargs).start()) or made[-1]
    for thing in reversed(made):
        finish(thing)


@pytest.fixture
def start_daemon():
    # start_daemon(args, **Daemon options): a started zeltest.Daemon.
    yield from factory(zeltest.Daemon, zeltest.Daemon.cleanup)


@pytest.fixture
def helpers():
    # helpers(command): a started zeltest.Process, stopped at the end of the test.
    yield from factory(zeltest.Process, zeltest.Process.stop)


@pytest.fixture(scope="session")
def ca(tmp_path_factory):
    # The test CA of the reference server, shared by all tests.
    return TestCA(tmp_path_factory.mktemp("ca"))


@pytest.fixture
def server(ca):
    # A reference enrollment server on loopback (plain HTTP).
    yield from kept(EnrollServer(ca).start(), EnrollServer.stop)


@pytest.fixture
def second_server(ca):
    # Another one, on its own port and base path.
    yield from kept(EnrollServer(ca, base_path="/v2/enroll").start(), EnrollServer.stop)


@pytest.fixture
def swtpm():
    # A started tpmsim.Swtpm in the test's own network namespace (root only); request it
    # before the servers so that they live in the namespace too.
    if not zeltest.is_root():
        pytest.skip("needs root (network namespace for the simulator's fixed port)")
    netns = tpmsim.NetNamespace()
    tpm = tpmsim.Swtpm()
    try:
        yield tpm.start()
    finally:
        tpm.cleanup()
        netns.leave()


@pytest.fixture
def tpm_key(swtpm):
    # (PEM public key, TPM name) of the daemon's future key, derived as a factory would.
    return swtpm.provision_public_key()


@pytest.fixture
def tpm_server(ca, swtpm, tpm_key):
    # A "tpm2-authkey-csr" server knowing the TPM key of the sandbox's serial.
    srv = EnrollServer(ca, protocols=("tpm2-authkey-csr",)).start()
    srv.protocol("tpm2-authkey-csr").register("SN-TEST-1", tpm_key[0])
    yield srv
    srv.stop()
