"""The enrollment protocols the server speaks. Each protocol answers "/initiate" with its
first status and every later step of its flow; the proof protocols of RPMB and TPM devices
plug in here as further classes registered in PROTOCOLS."""

from .checks import bad_request, check_csr, require
from .rpmb import EmmcRpmbCsr
from .tpm import Tpm2AuthkeyCsr


class Enrollment:
    """The server-side state of one enrollment, found again through its "cbData"."""

    def __init__(self, cb_data, protocol, device, public_key):
        self.cb_data = cb_data
        self.protocol = protocol
        self.device = device
        self.public_key = public_key  # the key sent in "/initiate", or None
        self.certificate = None


class NoAuthCsr:
    """"noauth-csr": the CSR alone, no hardware proof."""

    name = "noauth-csr"

    def initiate(self, server, enrollment):
        return {"status": "CSRRequired"}

    def step(self, server, enrollment, endpoint, body):
        if endpoint != "CSRVerify":
            raise bad_request(f"'{endpoint}' is not a step of {self.name}")
        csr = check_csr(require(body, "CSR"), enrollment)
        return server.enrolled(enrollment, csr)


# Each server makes its own instance of these, so that their knobs stay per server.
PROTOCOLS = {protocol.name: protocol
             for protocol in (NoAuthCsr(), EmmcRpmbCsr(), Tpm2AuthkeyCsr())}
