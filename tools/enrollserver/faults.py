"""Failures the server can be told to produce, one request at a time."""

import gzip
import socket
import struct
import time


class Fault:
    """What to do instead of (or on top of) the normal answer to one request."""

    def __init__(self, kind, **params):
        self.kind = kind
        self.params = params

    def __repr__(self):
        return f"Fault.{self.kind}({self.params})"

    @classmethod
    def error(cls, status, code, message="injected failure"):
        """An error object with this HTTP status and "code"."""
        return cls("error", status=status, code=code, message=message)

    @classmethod
    def redirect(cls, status, to_path=None, location=None):
        """A 3xx to another path of this server, which serves the same endpoint, or with
        `location` as the Location header as it stands (None: no header at all)."""
        return cls("redirect", status=status, to_path=to_path, location=location)

    @classmethod
    def exact_size(cls, size):
        """The normal answer padded with blanks to exactly `size` bytes."""
        return cls("exact_size", size=size)

    @classmethod
    def content_type(cls, value):
        """The normal answer under another Content-Type."""
        return cls("content_type", value=value)

    @classmethod
    def html_error(cls, status=502):
        """An HTML error page, as a broken gateway in front of the server would send."""
        return cls("html_error", status=status)

    @classmethod
    def delay(cls, seconds):
        """The normal answer, `seconds` late."""
        return cls("delay", seconds=seconds)

    @classmethod
    def drop(cls):
        """The connection is closed without an answer."""
        return cls("drop")

    @classmethod
    def json(cls, document, status=200, delay=0):
        """An arbitrary JSON document instead of the normal answer, `delay` seconds late."""
        return cls("json", document=document, status=status, delay=delay)

    @classmethod
    def raw(cls, data, status=200, content_type="application/json"):
        """These bytes as the body, whatever they are."""
        return cls("raw", data=data, status=status, value=content_type)

    # --- misbehaviour below HTTP's semantics: how the answer travels

    @classmethod
    def endless_chunks(cls):
        """A chunked body that never ends (until the client goes away or 64 MiB)."""
        return cls("endless_chunks")

    @classmethod
    def gzip(cls, inflated_size=None):
        """The normal answer gzip-compressed (Content-Encoding: gzip), padded with blanks to
        `inflated_size` bytes before compression when given."""
        return cls("gzip", size=inflated_size)

    @classmethod
    def headers(cls, count):
        """The normal answer with `count` extra header lines."""
        return cls("headers", count=count)

    @classmethod
    def interim_responses(cls, seconds, interval=0.25):
        """"102 Processing" interim responses every `interval` seconds for `seconds`, then
        the normal answer."""
        return cls("interim_responses", seconds=seconds, interval=interval)

    @classmethod
    def drip(cls, seconds, interval=0.25):
        """The normal answer, padded with blanks, its body one byte every `interval`
        seconds; the connection is closed after `seconds`, short of the end."""
        return cls("drip", seconds=seconds, interval=interval)

    @classmethod
    def reset_after_headers(cls):
        """Status line and headers, then a TCP reset instead of the body."""
        return cls("reset_after_headers")


def _chunk(data):
    return b"%x\r\n" % len(data) + data + b"\r\n"


def serve_transport_fault(handler, fault, status, data, content_type):
    """Sends (status, data) the way `fault` says; False when `fault` is not one of these."""
    kind, params = fault.kind, fault.params
    if kind == "gzip":
        if params["size"]:
            data = data.ljust(params["size"], b" ")
        handler._send(status, gzip.compress(data), content_type, {"Content-Encoding": "gzip"})
    elif kind == "headers":
        handler._send(status, data, content_type,
                      {f"X-Filler-{i}": "x" * 16 for i in range(params["count"])})
    elif kind == "endless_chunks":
        handler.send_response(status)
        handler.send_header("Content-Type", "application/json")
        handler.send_header("Transfer-Encoding", "chunked")
        handler.end_headers()
        block = _chunk(b" " * 8192)
        try:
            for _ in range(64 * 128):
                handler.wfile.write(block)
        except OSError:
            pass
        handler.close_connection = True
    elif kind == "interim_responses":
        try:
            for _ in range(int(params["seconds"] / params["interval"])):
                handler.wfile.write(b"HTTP/1.1 102 Processing\r\n\r\n")
                time.sleep(params["interval"])
            handler._send(status, data, content_type)
        except OSError:
            handler.close_connection = True
    elif kind == "drip":
        steps = int(params["seconds"] / params["interval"])
        handler.send_response(status)
        handler.send_header("Content-Type", content_type or "application/json")
        handler.send_header("Content-Length", str(len(data) + steps + 1))
        handler.end_headers()
        try:
            for byte in data.ljust(steps, b" ")[:steps]:
                handler.wfile.write(bytes([byte]))
                time.sleep(params["interval"])
        except OSError:
            pass
        handler.close_connection = True
    elif kind == "reset_after_headers":
        handler.send_response(status)
        handler.send_header("Content-Type", "application/json")
        handler.send_header("Content-Length", str(len(data) + 1000))
        handler.end_headers()
        handler.wfile.flush()
        # linger 0: close() sends a reset
        handler.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                                      struct.pack("ii", 1, 0))
        handler.close_connection = True
    else:
        return False
    return True
