"""The reference enrollment server of zelenrolld, for tests and for bringing up devices."""

from .ca import TestCA
from .faults import Fault
from .checks import ServerError
from .protocols import PROTOCOLS
from .proxy import RecordingProxy
from .server import EnrollServer

__all__ = ["EnrollServer", "Fault", "PROTOCOLS", "RecordingProxy", "ServerError", "TestCA"]
