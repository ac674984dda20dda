# Enrollment through an HTTP proxy and over TLS.

import base64
from urllib.parse import urlsplit

import pytest
from enrollserver import EnrollServer, RecordingProxy

DONE = "enrollment completed successfully"
# Loopback destinations always go direct, so the daemon is given a name that only the
# proxy knows how to reach.
PROXIED_HOST = "enroll.invalid"


@pytest.fixture
def proxy(server):
    port = urlsplit(server.url).port
    recording = RecordingProxy(upstream={(PROXIED_HOST, port): ("127.0.0.1", port)}).start()
    yield recording
    recording.stop()


def proxied_url(server):
    parts = urlsplit(server.url)
    return f"http://{PROXIED_HOST}:{parts.port}{parts.path}"


def proxy_file(sandbox, server="127.0.0.1", port=0, **attributes):
    attrs = "".join(f' {name}="{value}"' for name, value in attributes.items())
    return sandbox.write("proxy.conf", f'<proxyconf><proxy server="1.1.1.1" port="1"/>'
                         f'<proxy server="{server}" port="{port}"{attrs}/></proxyconf>')


def test_requests_go_through_the_proxy(sandbox, start_daemon, server, proxy):
    conf = proxy_file(sandbox, port=proxy.port)
    daemon = start_daemon(sandbox.args(f"--proxy={conf}", base_url=proxied_url(server)))
    daemon.wait_for_message(DONE, timeout=15)
    lines = [r.request_line for r in proxy.requests]
    assert lines == [f"POST {proxied_url(server)}/{step} HTTP/1.1"
                     for step in ("initiate", "CSRVerify", "acknowledge")]
    assert all("Proxy-Authorization" not in r.headers for r in proxy.requests)


def test_proxy_authentication(sandbox, start_daemon, server, proxy):
    proxy.require_auth = True
    conf = proxy_file(sandbox, port=proxy.port, username="dev@ice", password="p:w d")
    daemon = start_daemon(sandbox.args(f"--proxy={conf}", base_url=proxied_url(server)))
    daemon.wait_for_message(DONE, timeout=15)
    credentials = {base64.b64decode(r.headers["Proxy-Authorization"].split()[1])
                   for r in proxy.requests if "Proxy-Authorization" in r.headers}
    assert credentials == {b"dev@ice:p:w d"}


def test_loopback_and_unusable_proxies_go_direct(sandbox, start_daemon, server, proxy):
    # The proxy is ignored for loopback destinations...
    conf = proxy_file(sandbox, port=proxy.port)
    daemon = start_daemon(sandbox.args(f"--proxy={conf}", base_url=server.url))
    daemon.wait_for_message(DONE, timeout=15)
    daemon.stop()
    # ...and an unparsable proxy file means no proxy at all.
    sandbox.status_file.unlink()
    broken = sandbox.write("broken.conf", "<proxyconf><proxy server=")
    daemon = start_daemon(sandbox.args(f"--proxy={broken}", base_url=server.url))
    daemon.wait_for_message(DONE, timeout=15)
    assert daemon.has_message(f"failed parsing proxy config file '{broken}'")
    assert daemon.has_message("failed loading proxy configuration")
    assert proxy.requests == []


@pytest.fixture
def tls_server(ca):
    server = EnrollServer(ca, tls=True).start()
    yield server
    server.stop()


def test_tls_server_of_unknown_ca_is_refused(sandbox, start_daemon, tls_server):
    daemon = start_daemon(sandbox.args("--retry=0", base_url=tls_server.url))
    daemon.wait_for_log(r"failed to connect \(6\): \S")
    assert tls_server.requests == []


@pytest.mark.root
def test_tls_enrollment_with_trusted_ca(sandbox, start_daemon, tls_server):
    bundle = sandbox.write("ca-bundle.crt", tls_server.ca_file.read_text())
    daemon = start_daemon(sandbox.args(base_url=tls_server.url),
                          mounts={"/etc/ssl/certs/ca-certificates.crt": bundle})
    daemon.wait_for_message(DONE, timeout=15)
    assert len(tls_server.requests) == 3
