# Enrollment through an HTTP proxy (TLS is in test_hostile).

import base64
from urllib.parse import urlsplit

import pytest
from enrollserver import RecordingProxy

DONE = "enrollment completed successfully"
# Loopback destinations always go direct, so the daemon is given a name that only the
# proxy knows how to reach.
PROXIED_HOST = "enroll.invalid"


@pytest.fixture
def proxy(server):
    # A recording proxy and the server's URL through it (`url`).
    parts = urlsplit(server.url)
    recording = RecordingProxy(upstream={(PROXIED_HOST, parts.port): ("127.0.0.1", parts.port)})
    recording.url = f"http://{PROXIED_HOST}:{parts.port}{parts.path}"
    yield recording.start()
    recording.stop()


@pytest.mark.parametrize("auth", ["", ' username="dev@ice" password="p:w d"'],
                         ids=["through_the_proxy", "authentication"])
def test_requests_go_through_the_proxy(sandbox, start_daemon, proxy, auth):
    proxy.require_auth = bool(auth)
    conf = sandbox.write("proxy.conf", f'<proxyconf><proxy server="1.1.1.1" port="1"/><proxy '
                         f'server="127.0.0.1" port="{proxy.port}"{auth}/></proxyconf>')
    daemon = start_daemon(sandbox.args(f"--proxy={conf}", base_url=proxy.url))
    daemon.wait_for_message(DONE, timeout=15)
    lines = [r.request_line for r in proxy.requests]  # without authentication, each once
    assert list(dict.fromkeys(lines)) == [f"POST {proxy.url}/{step} HTTP/1.1"
                                          for step in ("initiate", "CSRVerify", "acknowledge")]
    credentials = {base64.b64decode(r.headers["Proxy-Authorization"].split()[1])
                   for r in proxy.requests if "Proxy-Authorization" in r.headers}
    assert credentials == ({b"dev@ice:p:w d"} if auth else set())


def test_unparsable_proxy_file_means_no_proxy(sandbox, start_daemon, server):
    # (that loopback destinations go direct anyway is in ProxyConfigTest)
    broken = sandbox.write("broken.conf", "<proxyconf><proxy server=")
    daemon = start_daemon(sandbox.args(f"--proxy={broken}", base_url=server.url))
    daemon.wait_for_message(DONE, timeout=15)
    assert daemon.has_message(f"failed parsing proxy config file '{broken}'")
    assert daemon.has_message("failed loading proxy configuration")
