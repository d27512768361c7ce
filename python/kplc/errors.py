"""Exceptions by cause, one class for each cause a session answer names."""

from __future__ import annotations


class Error(Exception):
    """Base of every failure the package reports.

    ``cause`` is the cause the session named (``"no_answer"``, ...), ``status``
    the exit status the one-shot ``kplc`` tool gives for the same failure.
    """

    cause = "failed"

    def __init__(self, message: str, *, status: int | None = None) -> None:
        super().__init__(message)
        self.message = message
        self.status = status


class CannotConnect(Error):
    """The PLC could not be connected to (refused, unreachable, or no answer to the connect)."""

    cause = "cannot_connect"


class NoAnswer(Error):
    """The PLC did not answer a request in time, or closed the connection without answering."""

    cause = "no_answer"


class ReplyTooShort(Error):
    """The PLC answered with fewer bytes than the request asked for."""

    cause = "reply_too_short"


class ReplyNotUsable(Error):
    """The PLC answered in full, but with something the driver could not use."""

    cause = "reply_not_usable"


class UnknownTag(Error):
    """A name or tag id the tag file does not hold, or a range outside the array."""

    cause = "unknown_tag"


class BadValue(Error):
    """A value that does not fit its tag; nothing of the write was sent."""

    cause = "bad_value"


class DriverError(Error):
    """The driver failed or refused a request without the PLC being at fault."""

    cause = "failed"


class BadRequest(Error):
    """The session did not understand a request (a fault of this package or its caller)."""

    cause = "bad_request"


class TagFileError(Error):
    """A tag file that cannot be read or holds no tag definitions."""

    cause = "tag_file"


class SessionLost(Error):
    """The ``kplc serve`` process (or the simulator) did not start, or ended under the session."""

    cause = "session_lost"


class Interrupted(Error):
    """The session was interrupted (SIGINT, SIGTERM or SIGHUP) during a request."""

    cause = "interrupted"


_BY_CAUSE: dict[str, type[Error]] = {
    c.cause: c
    for c in (CannotConnect, NoAnswer, ReplyTooShort, ReplyNotUsable, UnknownTag, BadValue, DriverError,
              BadRequest, TagFileError, SessionLost, Interrupted)
}

# The one-shot tool's exit statuses, for a serve process that ended before its
# first answer (it exits with the status the tool would give).
_BY_STATUS: dict[int, type[Error]] = {
    1: DriverError, 2: BadRequest, 3: TagFileError, 5: CannotConnect, 6: NoAnswer,
    7: ReplyTooShort, 8: ReplyNotUsable, 130: Interrupted,
}


def error_for(cause: str, message: str, status: int | None = None) -> Error:
    """The exception for an answer's ``error`` member."""
    return _BY_CAUSE.get(cause, Error)(message, status=status)


def error_for_status(status: int, message: str) -> Error:
    """The exception for a process that ended with the tool's exit ``status``."""
    return _BY_STATUS.get(status, SessionLost)(message, status=status)
