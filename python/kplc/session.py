"""A session: one ``kplc serve`` process, one driver, one PLC.

The driver keeps process-wide state and finds its tag file relative to its
working folder, so it never runs inside the caller's process: each session is
a process of its own, spoken to with one JSON line per request (see
docs/SESSION.md). Sessions side by side do not share anything, and the
caller's working folder is never changed.
"""

from __future__ import annotations

import json
import math
import os
import subprocess
import tempfile
import threading
import time
import weakref
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Iterator, Mapping, NamedTuple

from .errors import BadValue, SessionLost, error_for, error_for_status
from .programs import find_program

PathLike = str | os.PathLike[str]

# Types whose values are floating point even when the PLC's value is whole.
_FLOAT_TYPES = frozenset({"REAL", "LREAL"})


@dataclass(frozen=True)
class TagInfo:
    """One tag of the tag file as the driver reads it."""

    id: int
    name: str
    type: str           # "DINT", "STRING(20)", "?" for an unknown type
    shape: str          # "-" for a single element, else "[0..9]", "[1..3, 0..4]"
    device: str         # device area, "-" for none
    readable: bool      # the driver can read it
    writable: bool      # the driver has a writer for it
    program: str | None  # owning program of a local variable


class Change(NamedTuple):
    """A value that ``Session.watch`` saw change (or saw first)."""

    name: str
    value: Any
    time: float  # time.time() of the poll that saw it


class Problem(NamedTuple):
    """One problem ``Session.check`` found; ``line`` 0 is the file as a whole."""

    line: int
    problem: str


def _typed(type_text: str, value: Any) -> Any:
    """A value with REAL/LREAL numbers as floats (JSON spells 2.0 as 2); NaN for a non-finite one."""
    if type_text not in _FLOAT_TYPES:
        return value
    if isinstance(value, list):
        return [_typed(type_text, v) for v in value]
    return math.nan if value is None else float(value)


def _describe_end(returncode: int) -> str:
    if returncode < 0:
        return f"killed by signal {-returncode}"
    return f"exit status {returncode}"


class Session:
    """A connection to one PLC through the kplc driver; use ``connect()``.

    Usable as a context manager; ``close()`` ends the serve process. Methods
    may be called from several threads (requests are taken one at a time).
    """

    def __init__(self, host: str, port: int, tags: PathLike, *, timeout: int = 3, dev: int = 0,
                 udp: bool = False, direct: bool = False, tool: PathLike | None = None,
                 lib: PathLike | None = None, verbose: bool = False) -> None:
        tag_file = Path(tags).expanduser()
        if not tag_file.is_file():
            raise error_for("tag_file", f"tag file '{tags}' does not exist")
        args = [find_program("kplc", tool), "serve", "--plc", host, "--port", str(int(port)),
                "--tags", str(tag_file.resolve()), "--timeout", str(int(timeout)), "--dev", str(int(dev))]
        if udp:
            args.append("--udp")
        if direct:
            args.append("--direct")
        if lib is not None:
            args += ["--lib", str(Path(lib).resolve())]
        if verbose:
            args.append("-v")
        self.host, self.port, self.tag_file = host, int(port), tag_file.resolve()
        self._lock = threading.Lock()
        self._tags: list[TagInfo] | None = None
        self._started = False
        # The driver's diagnostics and the tool's messages: kept for the
        # exception when the process ends.
        self._stderr = tempfile.TemporaryFile()
        self._proc = subprocess.Popen(args, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self._stderr)
        self._finalizer = weakref.finalize(self, _stop_process, self._proc, self._stderr)
        hello = self._receive()
        self._started = True
        self.protocol: int = hello.get("serve", 0)

    # -- the protocol ----------------------------------------------------
    def _stderr_tail(self, limit: int = 4000) -> str:
        self._stderr.seek(0)
        text = self._stderr.read().decode("utf-8", "replace").strip()
        return text[-limit:]

    def _lost(self) -> SessionLost:
        try:
            code = self._proc.wait(timeout=5)
        except subprocess.TimeoutExpired:
            self._proc.kill()
            code = self._proc.wait()
        detail = self._stderr_tail()
        message = f"kplc serve ended ({_describe_end(code)})" + (f": {detail}" if detail else "")
        if code > 0 and not self._started:
            # Ended before its first answer: the tool's status says why.
            return error_for_status(code, detail or message)  # type: ignore[return-value]
        return SessionLost(message, status=code)

    def _receive(self) -> dict[str, Any]:
        assert self._proc.stdout is not None
        line = self._proc.stdout.readline()
        if not line:
            raise self._lost()
        answer = json.loads(line)
        if not answer.get("ok"):
            err = answer.get("error", {})
            raise error_for(err.get("cause", "failed"), err.get("message", "request failed"), err.get("status"))
        return answer

    def request(self, op: str, **members: Any) -> dict[str, Any]:
        """Sends one request and returns its answer; raises the error it names.

        The building block of the other methods (see docs/SESSION.md for the requests).
        """
        try:
            line = json.dumps({"op": op, **members}, ensure_ascii=False, allow_nan=False)
        except ValueError as e:  # NaN or infinity: JSON has no spelling for them
            raise BadValue(f"{e}; nothing was written", status=2) from None
        with self._lock:
            if self._proc.poll() is not None or self._proc.stdin is None or self._proc.stdin.closed:
                raise self._lost()
            try:
                self._proc.stdin.write(line.encode("utf-8") + b"\n")
                self._proc.stdin.flush()
            except (BrokenPipeError, ValueError):
                raise self._lost() from None
            return self._receive()

    # -- what users call ---------------------------------------------------
    def read(self, *names: str | int) -> Any:
        """Reads tags by name or tag id, ranges (``"Speed[0..3]"``) and rows (``"Grid[1]"``) too.

        One name gives its value, several give a list of values in order.
        Values are typed: int, float (REAL, LREAL), bool, str; arrays and
        ranges as lists (nested for whole multi-dimensional arrays).
        """
        if not names:
            raise TypeError("read() needs at least one name")
        values = [_typed(v["type"], v["value"]) for v in self.request("read", names=list(names))["values"]]
        return values[0] if len(names) == 1 else values

    def read_dict(self, *names: str | int) -> dict[str, Any]:
        """As ``read``, as a dict from each name (as the tool labels it) to its value."""
        answer = self.request("read", names=list(names))
        return {v["name"]: _typed(v["type"], v["value"]) for v in answer["values"]}

    def write(self, values: Mapping[str, Any] | None = None, /, **more: Any) -> None:
        """Writes tags: ``write(Speed=5, Title="AUTO")`` or ``write({"Grid[1]": [1, 2, 3, 4]})``.

        The batch is checked whole before anything is sent: an unknown name or
        a value that does not fit raises and writes nothing. Arrays and ranges
        take lists (nested lists are flattened in row-major order).
        """
        batch = {**(values or {}), **more}
        if not batch:
            raise TypeError("write() needs at least one value")
        self.request("write", values={k: (list(v) if isinstance(v, tuple) else v) for k, v in batch.items()})

    def watch(self, *names: str | int, interval: float = 0.5, count: int | None = None) -> Iterator[Change]:
        """Polls the names every ``interval`` seconds and yields each change.

        The first poll yields every value; later polls only those that
        changed. Stops after ``count`` polls (None: never). A failed read
        raises from the generator.
        """
        last: dict[str, Any] = {}
        polls = 0
        while count is None or polls < count:
            if polls:
                time.sleep(interval)
            polls += 1
            now = time.time()
            for name, value in self.read_dict(*names).items():
                if name not in last or last[name] != value:
                    last[name] = value
                    yield Change(name, value, now)

    def tags(self) -> list[TagInfo]:
        """Every tag of the tag file, in tag id order."""
        if self._tags is None:
            self._tags = [TagInfo(t["id"], t["name"], t["type"], t["shape"], t["device"], t["read"], t["write"],
                                  t["program"]) for t in self.request("list")["tags"]]
        return list(self._tags)

    def check(self, tag_file: PathLike) -> list[Problem]:
        """Problems of a tag file as the driver would read it (empty for a clean file)."""
        answer = self.request("check", file=str(Path(tag_file).expanduser().resolve()))
        return [Problem(p["line"], p["problem"]) for p in answer["problems"]]

    def close(self) -> None:
        """Ends the serve process (idempotent)."""
        with self._lock:
            self._finalizer()

    @property
    def pid(self) -> int:
        """Process id of this session's ``kplc serve``."""
        return self._proc.pid

    @property
    def closed(self) -> bool:
        return not self._finalizer.alive

    def __enter__(self) -> "Session":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def __repr__(self) -> str:
        return f"<kplc.Session {self.host}:{self.port} tags={str(self.tag_file)!r}{' closed' if self.closed else ''}>"


def _stop_process(proc: subprocess.Popen[bytes], stderr: Any) -> None:
    """Closes the request pipe (serve ends at end of input), then waits; kills a process that hangs."""
    try:
        if proc.stdin is not None:
            proc.stdin.close()
    except OSError:
        pass
    try:
        proc.wait(timeout=5)
    except subprocess.TimeoutExpired:
        proc.kill()
        proc.wait()
    if proc.stdout is not None:
        proc.stdout.close()
    stderr.close()


def connect(host: str = "127.0.0.1", port: int | None = None, tags: PathLike | None = None, *,
            timeout: int = 3, dev: int = 0, udp: bool = False, direct: bool = False,
            tool: PathLike | None = None, lib: PathLike | None = None, verbose: bool = False) -> Session:
    """Opens a session to the PLC at ``host:port`` whose variables ``tags`` describes.

    ``timeout``: the driver's response time-out in whole seconds. ``direct``:
    the driver talks to the PLC itself instead of through the tool's relay,
    which saves two hops per exchange but leaves failures without their cause
    (they raise ``DriverError``). ``tool``:
    the ``kplc`` program (else ``KPLC_TOOL``, else ``PATH``); ``lib``: the
    driver library it loads. ``verbose``: every diagnostic line of the driver
    to the session's log (by default only those of failed calls).
    """
    if port is None or tags is None:
        raise TypeError("connect() needs port= and tags=")
    return Session(host, port, tags, timeout=timeout, dev=dev, udp=udp, direct=direct, tool=tool, lib=lib,
                   verbose=verbose)
