"""An HTTP server run on a background thread, shared by the enrollment server and the proxy."""

import socket
import threading
from http.server import ThreadingHTTPServer


class QuietHTTPServer(ThreadingHTTPServer):
    daemon_threads = True

    def handle_error(self, request, client_address):
        pass  # clients that go away (timeouts, refused TLS, dropped tunnels) are expected


class QuietHTTPServer6(QuietHTTPServer):
    address_family = socket.AF_INET6


class BackgroundServer:
    """Serves `handler` on (host, port) from start() until stop(); the server object knows
    its owner as `owner`."""

    def __init__(self, host, port, handler):
        server_class = QuietHTTPServer6 if ":" in host else QuietHTTPServer
        self._httpd = server_class((host, port), handler)
        self._httpd.owner = self
        self._thread = None

    def start(self):
        self._thread = threading.Thread(target=self._httpd.serve_forever, args=(0.1,),
                                        daemon=True)
        self._thread.start()
        return self

    def stop(self):
        if self._thread:
            self._httpd.shutdown()
            self._thread.join(5)
            self._thread = None
        self._httpd.server_close()
