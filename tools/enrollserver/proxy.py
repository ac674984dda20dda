"""A recording HTTP forward proxy on loopback, for the daemon's proxy tests: absolute-form
requests are forwarded and CONNECT is tunnelled; every request line and its headers are
kept. `upstream` maps (host, port) of a request to where the proxy really connects, so that
tests can use host names that only the proxy knows."""

import base64
import http.client
import select
import socket
import threading
from http.server import BaseHTTPRequestHandler
from urllib.parse import urlsplit

from .threaded import BackgroundServer

HOP_BY_HOP = {"proxy-authorization", "proxy-connection", "connection", "keep-alive"}


class ProxyRecord:
    def __init__(self, handler):
        self.request_line = handler.requestline
        self.headers = dict(handler.headers.items())


class RecordingProxy(BackgroundServer):
    def __init__(self, port=0, upstream=None, require_auth=False):
        self.upstream = dict(upstream or {})
        self.require_auth = require_auth  # answer 407 until Basic credentials come
        self._lock = threading.Lock()
        self._requests = []
        super().__init__("127.0.0.1", port, _ProxyHandler)

    @property
    def port(self):
        return self._httpd.server_address[1]

    @property
    def requests(self):
        with self._lock:
            return list(self._requests)

    def _record(self, handler):
        with self._lock:
            self._requests.append(ProxyRecord(handler))

    def target(self, host, port):
        return self.upstream.get((host, port), (host, port))


class _ProxyHandler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, fmt, *args):
        pass

    def _authorized(self):
        proxy = self.server.owner
        proxy._record(self)
        credentials = self.headers.get("Proxy-Authorization", "")
        if not proxy.require_auth or credentials.startswith("Basic ") and \
                base64.b64decode(credentials[6:]):
            return True
        self.send_response(407)
        self.send_header("Proxy-Authenticate", 'Basic realm="zelproxy"')
        self.send_header("Content-Length", "0")
        self.end_headers()
        self.rfile.read(int(self.headers.get("Content-Length") or 0))
        return False

    def do_CONNECT(self):
        if not self._authorized():
            return
        host, _, port = self.path.rpartition(":")
        try:
            upstream = socket.create_connection(self.server.owner.target(host, int(port)), 10)
        except OSError:
            self.send_error(502)
            return
        self.send_response(200, "Connection established")
        self.end_headers()
        self.close_connection = True
        with upstream:
            sockets = [self.connection, upstream]
            while True:
                readable, _, _ = select.select(sockets, [], [], 30)
                if not readable:
                    return
                for sock in readable:
                    data = sock.recv(65536)
                    if not data:
                        return
                    (upstream if sock is self.connection else self.connection).sendall(data)

    def _forward(self):
        if not self._authorized():
            return
        url = urlsplit(self.path)
        body = self.rfile.read(int(self.headers.get("Content-Length") or 0))
        host, port = self.server.owner.target(url.hostname, url.port or 80)
        headers = {k: v for k, v in self.headers.items() if k.lower() not in HOP_BY_HOP}
        connection = http.client.HTTPConnection(host, port, timeout=30)
        try:
            connection.request(self.command, url.path + (f"?{url.query}" if url.query else ""),
                               body, headers)
            response = connection.getresponse()
            data = response.read()
        except OSError:
            self.send_error(502)
            return
        finally:
            connection.close()
        self.send_response(response.status, response.reason)
        for name, value in response.getheaders():
            if name.lower() not in HOP_BY_HOP | {"content-length", "transfer-encoding"}:
                self.send_header(name, value)
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        self.wfile.write(data)

    do_GET = do_POST = _forward
