"""The reference enrollment server: the server side of the enrollment protocol over HTTP(S),
with a request log for tests and fault injection."""

import json
import secrets
import ssl
import threading
import time
from collections import defaultdict, deque
from datetime import datetime, timezone
from http import HTTPStatus
from http.server import BaseHTTPRequestHandler

from cryptography.hazmat.primitives import serialization

from .faults import serve_transport_fault
from .checks import ServerError, bad_request, require
from .protocols import PROTOCOLS, Enrollment
from .threaded import BackgroundServer

ACK_STATUSES = ("saved", "error", "unknown")
ALT_SERIALS = ("user", "board", "system", "chassis")


def now_iso8601():
    return datetime.now(timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ")


class RequestRecord:
    """One request as received: path, method, headers, raw body, parsed JSON (or None), the
    monotonic time of its arrival and the client's (host, port), which tells connections
    apart."""

    def __init__(self, handler, body):
        self.path = handler.path
        self.client = handler.client_address[:2]
        self.method = handler.command
        self.headers = dict(handler.headers.items())
        self.body = body
        self.time = time.monotonic()
        try:
            self.json = json.loads(body) if body else None
        except ValueError:
            self.json = None


# Stands for `EnrollServer.service_members` in a document until it is sent.
_RAW_MEMBERS = "zel-raw-members"


class EnrollServer(BackgroundServer):
    """Serves POST <base_path>/<endpoint> on loopback. Any path ending in an endpoint's name
    serves that endpoint, so that redirects can point anywhere on the server.

    Knobs for tests: `extra_services` (added to "enrolledServices"), `bad_certificate` (the
    certificate is for another key), `omit_services` (no "enrolledServices"),
    `omit_aws_iot` (no "aws-iot" in it), `service_members` (JSON text of members sent as
    they stand at the end of "aws-iot", for values Python would not write), `inject()`
    and `expire()`."""

    def __init__(self, ca, host="127.0.0.1", port=0, tls=False, base_path="/enroll",
                 protocols=("noauth-csr",), log=None):
        self.ca = ca
        self.base_path = base_path.rstrip("/")
        self.protocols = [type(PROTOCOLS[name])() for name in protocols]
        self.log = log
        self.extra_services = {}
        self.bad_certificate = False
        self.omit_services = False
        self.omit_aws_iot = False
        self.service_members = None
        self.acknowledgements = []  # (device, acknowledgedServices) per "/acknowledge"
        self.sent_services = []  # every "enrolledServices" object sent
        self.issued_certificates = []
        self._cond = threading.Condition()
        self._requests = []
        self._faults = defaultdict(deque)
        self._enrollments = {}
        self._tls = None
        if tls:
            self._tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            self._tls.load_cert_chain(*ca.issue_server_cert())
        super().__init__(host, port, _Handler)

    def protocol(self, name):
        """This server's instance of protocol `name`, whose knobs tests may set."""
        return next(p for p in self.protocols if p.name == name)

    @property
    def ca_file(self):
        return self.ca.cert_file

    @property
    def url(self):
        host, port = self._httpd.server_address[:2]
        host = f"[{host}]" if ":" in host else host
        return f"{'https' if self._tls else 'http'}://{host}:{port}{self.base_path}"

    # --- request log and fault injection

    @property
    def requests(self):
        with self._cond:
            return list(self._requests)

    def reset(self):
        """Forgets the request log."""
        with self._cond:
            self._requests.clear()

    def wait_for_request(self, path_suffix, count=1, timeout=10.0):
        """Waits until `count` requests whose path ends in `path_suffix` came."""
        deadline = time.monotonic() + timeout
        with self._cond:
            while sum(r.path.endswith(path_suffix) for r in self._requests) < count:
                remaining = deadline - time.monotonic()
                if remaining <= 0:
                    raise AssertionError(f"no {count} request(s) to *{path_suffix} within "
                                         f"{timeout} s: {[r.path for r in self._requests]}")
                self._cond.wait(remaining)

    def inject(self, path_suffix, fault, times=1):
        """Queues `fault` for the next `times` requests to the endpoint `path_suffix`."""
        with self._cond:
            self._faults[path_suffix.rsplit("/", 1)[-1]].extend([fault] * times)

    def expire(self):
        """Forgets every enrollment in progress, as a restarted server would."""
        with self._cond:
            self._enrollments.clear()

    def _record(self, handler, body):
        record = RequestRecord(handler, body)
        with self._cond:
            self._requests.append(record)
            self._cond.notify_all()
        return record

    def _take_fault(self, endpoint):
        with self._cond:
            queue = self._faults.get(endpoint)
            return queue.popleft() if queue else None

    # --- the protocol

    def answer(self, endpoint, body):
        """(HTTP status, JSON document or None) for a request to `endpoint`."""
        try:
            if endpoint == "initiate":
                return 200, self._initiate(body)
            enrollment = self._enrollment(body)
            if endpoint == "acknowledge":
                self._acknowledge(enrollment, body)
                return 200, None
            return 200, self._response(enrollment, enrollment.protocol.step(
                self, enrollment, endpoint, body))
        except ServerError as error:
            return error.status, {"statusCode": error.status, "code": error.code,
                                  "message": error.message, "time": now_iso8601()}

    def _initiate(self, body):
        device = require(body, "device", dict)
        for name in ("serial", "model", "brand"):
            require(device, name)
        alt = device.get("altSerial", {})
        if not isinstance(alt, dict) or not set(alt) <= set(ALT_SERIALS) or \
                not all(isinstance(v, str) and v for v in alt.values()):
            raise bad_request("'altSerial' must hold non-empty user/board/system/chassis")
        if "firmwareVersion" in body:
            require(body, "firmwareVersion")
        if require(body, "enrollService") != "aws-iot":
            raise bad_request("only the 'aws-iot' service can be enrolled")
        offered = require(body, "enrollmentProtocols", list)
        public_key = None
        if "publicKey" in body:
            try:
                public_key = serialization.load_pem_public_key(
                    require(body, "publicKey").encode())
            except ValueError as error:
                raise bad_request(f"'publicKey' is not a PEM public key: {error}")
        protocol = next((p for name in offered for p in self.protocols if p.name == name), None)
        if protocol is None:
            raise bad_request(f"none of the protocols {offered} is supported",
                              "UnsupportedProtocolException")
        enrollment = Enrollment(secrets.token_urlsafe(24), protocol, device, public_key)
        with self._cond:
            self._enrollments[enrollment.cb_data] = enrollment
        return self._response(enrollment, protocol.initiate(self, enrollment))

    def _enrollment(self, body):
        cb_data = require(body, "cbData")
        with self._cond:
            enrollment = self._enrollments.get(cb_data)
        if enrollment is None:
            raise ServerError(410, "CallbackDataExpiredException",
                              "the enrollment is unknown or has expired, start again")
        return enrollment

    def _response(self, enrollment, fields):
        return {"status": fields.pop("status"), "enrollmentProtocol": enrollment.protocol.name,
                "cbData": enrollment.cb_data, **fields}

    def enrolled(self, enrollment, csr):
        """The "enrolled" answer for a checked CSR (called by the protocols)."""
        certificate = (self.ca.issue_unrelated_cert() if self.bad_certificate
                       else self.ca.sign_csr(csr))
        device = enrollment.device
        services = {}
        if not self.omit_aws_iot:
            services["aws-iot"] = {
                "certificate": certificate,
                "endpoint": "a3zel7example-ats.iot.eu-west-1.amazonaws.com",
                "port": 8883,
                "clientId": device["serial"],
                "thingName": f"{device['brand']}-{device['model']}-{device['serial']}",
                "region": "eu-west-1",
                "caCertificate": self.ca.cert_pem,
            }
            if self.service_members:
                services["aws-iot"][_RAW_MEMBERS] = None
        services.update(self.extra_services)
        enrollment.certificate = certificate
        sent = dict(services)
        if self.service_members and "aws-iot" in sent:
            sent["aws-iot"] = {**sent["aws-iot"], **json.loads(f"{{{self.service_members}}}")}
            del sent["aws-iot"][_RAW_MEMBERS]
        with self._cond:
            self.issued_certificates.append(certificate)
            self.sent_services.append(sent)
        return {"status": "enrolled", **({} if self.omit_services else
                                         {"enrolledServices": services})}

    def _acknowledge(self, enrollment, body):
        acks = require(body, "acknowledgedServices", dict)
        for name, ack in acks.items():
            if require(ack, "status") not in ACK_STATUSES:
                raise bad_request(f"bad status of service '{name}'")
            if "message" in ack:
                require(ack, "message")
        with self._cond:
            self.acknowledgements.append((enrollment.device, acks))
            self._enrollments.pop(enrollment.cb_data, None)


class _Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def setup(self):
        tls = self.server.owner._tls
        if tls:
            self.request.settimeout(10)
            self.request = tls.wrap_socket(self.request, server_side=True)
        super().setup()

    def log_message(self, fmt, *args):
        pass

    def do_GET(self):
        self._send(405, b"", "text/plain")

    def do_POST(self):
        srv = self.server.owner
        body = self.rfile.read(int(self.headers.get("Content-Length") or 0))
        record = srv._record(self, body)
        endpoint = self.path.rsplit("/", 1)[-1]
        fault = srv._take_fault(endpoint)
        status, note = self._serve(srv, endpoint, record, fault)
        if srv.log:
            srv.log(f"{self.command} {self.path} -> {status} {note}")

    def _serve(self, srv, endpoint, record, fault):
        kind, params = (fault.kind, fault.params) if fault else (None, {})
        if kind == "drop":
            self.close_connection = True
            return "-", "dropped"
        if kind == "delay" or "delay" in params:
            time.sleep(params.get("seconds") or params["delay"])
        if kind == "redirect":
            location = params["location"]
            if params["to_path"]:
                host = self.headers.get("Host", "")
                location = f"{'https' if srv._tls else 'http'}://{host}{params['to_path']}"
            self._send(params["status"], b"", None, {"Location": location} if location else {})
            return params["status"], f"redirect to {location}"
        if kind == "raw":
            self._send(params["status"], params["data"], params["value"])
            return params["status"], "(raw)"
        if kind == "error":
            status, document = params["status"], {
                "statusCode": params["status"], "code": params["code"],
                "message": params["message"], "time": now_iso8601()}
        elif kind == "json":
            status, document = params["status"], params["document"]
        elif kind == "html_error":
            status = params["status"]
            phrase = HTTPStatus(status).phrase
            page = f"<html><body><h1>{status} {phrase}</h1></body></html>\n".encode()
            self._send(status, page, "text/html; charset=utf-8")
            return status, "html page"
        else:
            status, document = srv.answer(endpoint, record.json)
        data = json.dumps(document).encode() if document is not None else b""
        if srv.service_members:
            data = data.replace(f'"{_RAW_MEMBERS}": null'.encode(), srv.service_members.encode())
        if kind == "exact_size":
            data = data.ljust(params["size"], b" ")
        content_type = params.get("value", "application/json") if data else None
        if not fault or not serve_transport_fault(self, fault, status, data, content_type):
            self._send(status, data, content_type)
        if not isinstance(document, dict):
            return status, "(empty)" if document is None else "(json)"
        return status, document.get("status") or document.get("code") or ""

    def _send(self, status, data, content_type, headers=None):
        self.send_response(status)
        if content_type:
            self.send_header("Content-Type", content_type)
        for name, value in (headers or {}).items():
            self.send_header(name, value)
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        self.wfile.write(data)
