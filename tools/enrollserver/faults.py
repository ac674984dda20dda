"""Failures the server can be told to produce, one request at a time."""


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
    def redirect(cls, status, to_path):
        """A 307 or 308 to another path of this server, which serves the same endpoint."""
        return cls("redirect", status=status, to_path=to_path)

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
    def json(cls, document, status=200):
        """An arbitrary JSON document instead of the normal answer."""
        return cls("json", document=document, status=status)
