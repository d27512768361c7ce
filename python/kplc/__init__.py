"""Read and write PLC tags by name through the kplc driver.

    import kplc

    with kplc.connect("127.0.0.1", port=8500, tags="plant.csv") as plc:
        plc.write(Setpoint=42.5)
        assert plc.read("Setpoint") == 42.5

Each session runs ``kplc serve`` (found through ``tool=``, ``KPLC_TOOL`` or
``PATH``), one driver and one PLC per process, so sessions to several PLCs
work side by side and the caller's working folder never changes.
``kplc.simulate(tags)`` runs the simulator too; the pytest plugin
(``kplc.pytest_plugin``) gives tests a simulator and a session.
"""

from .errors import (BadRequest, BadValue, CannotConnect, DriverError, Error, Interrupted, NoAnswer, ReplyNotUsable,
                     ReplyTooShort, SessionLost, TagFileError, UnknownTag)
from .session import Change, Problem, Session, TagInfo, connect
from .simulator import Simulator, simulate

__version__ = "0.1.0"

__all__ = [
    "connect", "simulate", "Session", "Simulator", "TagInfo", "Change", "Problem",
    "Error", "CannotConnect", "NoAnswer", "ReplyTooShort", "ReplyNotUsable", "UnknownTag", "BadValue",
    "DriverError", "BadRequest", "TagFileError", "SessionLost", "Interrupted",
]
