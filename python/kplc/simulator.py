"""The ``kplc-sim`` simulator as a context manager, and a session that runs one."""

from __future__ import annotations

import re
import selectors
import signal
import subprocess
import tempfile
from pathlib import Path
from typing import Any, Iterable

from .errors import SessionLost
from .programs import find_program
from .session import PathLike, Session, connect

_LISTENING = re.compile(rb"listening on ([0-9.]+):(\d+)")
# Seconds the simulator gets to load its tag file or capture and listen.
_START_SECONDS = 20


def _option_args(name: str, value: Any) -> list[str]:
    flag = "--" + name.replace("_", "-")
    if value is None or value is False:
        return []
    if value is True:
        return [flag]
    return [flag, str(value)]


def _fault_args(fault: str | Iterable[str] | dict[str, Any] | None) -> list[str]:
    if fault is None:
        return []
    if isinstance(fault, str):
        return _option_args(fault, True)
    if isinstance(fault, dict):
        return [a for k, v in fault.items() for a in _option_args(k, v)]
    return [a for f in fault for a in _option_args(f, True)]


class Simulator:
    """A ``kplc-sim`` process on a free loopback port, stopped by ``stop()`` or on leaving ``with``.

    ``tags``: the tag file it serves (and the sessions to it use). ``state``:
    a file the memory is loaded from (when it exists) and saved to on stop.
    ``replay``: a capture whose PLC it plays. ``fault``: misbehaviour, as a
    name (``"silent"``, ``"garbage"``, ``"refuse"``, ``"split"``), a list of
    names, or a dict (``{"delay_ms": 200, "truncate": 20}``). Any other keyword
    is passed on as ``--name value`` (``True``: a bare flag), as
    ``kplc-sim --help`` lists them. ``sim``: the program (else ``KPLC_SIM``,
    else ``PATH``).
    """

    def __init__(self, tags: PathLike | None = None, *, state: PathLike | None = None,
                 replay: PathLike | None = None, fault: Any = None, sim: PathLike | None = None,
                 tool: PathLike | None = None, **options: Any) -> None:
        if tags is None and replay is None:
            raise TypeError("Simulator needs tags= or replay=")
        self.tags = Path(tags).expanduser().resolve() if tags is not None else None
        args = [find_program("kplc-sim", sim), "--listen", "127.0.0.1", "--port", str(options.pop("port", 0))]
        for name, path in (("tags", self.tags), ("state", state), ("replay", replay)):
            if path is not None:
                args += [f"--{name}", str(Path(path).expanduser().resolve())]
        args += _fault_args(fault)
        for name, value in options.items():
            args += _option_args(name, value)
        self.args = args
        self._tool = tool
        # Defaults of the sessions connect() opens (the pytest plugin sets the time-out here).
        self.session_options: dict[str, Any] = {}
        self._memory: Session | None = None
        self._log = tempfile.TemporaryFile()
        self._proc = subprocess.Popen(args, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=self._log)
        self.host, self.port = self._wait_listening()

    def _wait_listening(self) -> tuple[str, int]:
        assert self._proc.stdout is not None
        with selectors.DefaultSelector() as sel:
            sel.register(self._proc.stdout, selectors.EVENT_READ)
            if sel.select(_START_SECONDS):
                line = self._proc.stdout.readline()
                found = _LISTENING.search(line)
                if found:
                    return found.group(1).decode(), int(found.group(2))
        self.stop()
        raise SessionLost(f"kplc-sim did not start ({' '.join(self.args)}): {self.log.strip()}")

    @property
    def log(self) -> str:
        """What the simulator logged so far (connections, malformed requests, --trace lines)."""
        self._log.seek(0)
        return self._log.read().decode("utf-8", "replace")

    @property
    def running(self) -> bool:
        return self._proc.poll() is None

    def connect(self, **session_options: Any) -> Session:
        """A session to this simulator with its tag file (keywords as for ``kplc.connect``)."""
        if self.tags is None:
            raise TypeError("a simulator without tags= has no tag file for a session")
        options = {"tool": self._tool, **self.session_options, **session_options}
        return connect(self.host, self.port, self.tags, **options)

    def memory(self, name: str | int) -> Any:
        """The simulator's value of a tag, read through a second driver session of its own.

        That is what a second panel would read: the value reached the PLC's
        memory, not only the first session's view of it. Needs a simulator
        that answers (no fault, no replay without its tag file).
        """
        if self._memory is None:
            self._memory = self.connect(timeout=1)
        return self._memory.read(name)

    def stop(self) -> None:
        """Stops the simulator (it saves --state then); idempotent."""
        if self._memory is not None:
            self._memory.close()
            self._memory = None
        if self._proc.poll() is None:
            self._proc.send_signal(signal.SIGTERM)
            try:
                self._proc.wait(timeout=10)
            except subprocess.TimeoutExpired:
                self._proc.kill()
                self._proc.wait()
        if self._proc.stdout is not None:
            self._proc.stdout.close()

    def __enter__(self) -> "Simulator":
        return self

    def __exit__(self, *exc: object) -> None:
        self.stop()

    def __del__(self) -> None:
        if getattr(self, "_proc", None) is not None and self._proc.poll() is None:
            self._proc.kill()
            self._proc.wait()


class SimulatedSession(Session):
    """A session that owns the simulator it talks to; closing it stops the simulator."""

    simulator: Simulator

    def close(self) -> None:
        try:
            super().close()
        finally:
            self.simulator.stop()


def simulate(tags: PathLike, *, timeout: int = 3, direct: bool = False, tool: PathLike | None = None,
             **simulator_options: Any) -> Session:
    """Starts ``kplc-sim`` with ``tags`` (and ``Simulator`` options) and returns a session to it.

    The simulator is at ``session.simulator`` and stops when the session closes.
    """
    sim = Simulator(tags, tool=tool, **simulator_options)
    try:
        session = SimulatedSession(sim.host, sim.port, tags, timeout=timeout, direct=direct, tool=tool)
    except BaseException:
        sim.stop()
        raise
    session.simulator = sim
    return session
