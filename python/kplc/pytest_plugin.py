"""pytest plugin: a simulator per test and a session to it.

Fixtures:
    kplc_sim  a ``kplc.Simulator`` on a free loopback port (each test its own,
              so ``pytest -n`` runs work), stopped after the test; its log is
              added to the report of a failed test.
    plc       a ``kplc.Session`` to it with the same tag file.

Marker ``kplc_sim(tags=..., state=..., replay=..., fault=..., timeout=..., **options)``
on a test, a class or a module (``pytestmark``); nearer markers override
farther ones key by key. ``timeout`` is the session's response time-out;
every other keyword goes to ``kplc.Simulator``. Relative paths are taken from
the test file's folder, then from the rootdir. The ini setting ``kplc_tags``
gives the tag file of tests whose markers name none.
"""

from __future__ import annotations

from pathlib import Path
from typing import Any, Iterator

import pytest

from .session import Session
from .simulator import Simulator

_SIM = pytest.StashKey[Simulator]()
_PATH_OPTIONS = ("tags", "state", "replay")


def pytest_addoption(parser: pytest.Parser) -> None:
    parser.addini("kplc_tags", "tag file for kplc_sim when no kplc_sim marker names one (relative to the ini file)")


def pytest_configure(config: pytest.Config) -> None:
    config.addinivalue_line(
        "markers",
        "kplc_sim(tags=None, state=None, replay=None, fault=None, timeout=None, **options): "
        "how the kplc_sim fixture runs the simulator for this test")


def _resolve(value: Any, test_dir: Path, root: Path) -> Any:
    path = Path(value).expanduser()
    if path.is_absolute():
        return path
    near = test_dir / path
    return near if near.exists() or not (root / path).exists() else root / path


def _options(request: pytest.FixtureRequest) -> dict[str, Any]:
    options: dict[str, Any] = {}
    for marker in reversed(list(request.node.iter_markers("kplc_sim"))):  # farthest first
        if marker.args:
            raise pytest.UsageError("kplc_sim markers take keywords only, e.g. kplc_sim(tags='plant.csv')")
        options.update(marker.kwargs)
    config = request.config
    if options.get("tags") is None and options.get("replay") is None and config.getini("kplc_tags"):
        base = config.inipath.parent if config.inipath else config.rootpath
        options["tags"] = base / config.getini("kplc_tags")
    test_dir = Path(str(request.node.path)).parent
    for key in _PATH_OPTIONS:
        if options.get(key) is not None:
            options[key] = _resolve(options[key], test_dir, config.rootpath)
    return options


@pytest.fixture
def kplc_sim(request: pytest.FixtureRequest) -> Iterator[Simulator]:
    """A running kplc-sim, as the test's kplc_sim markers (and the kplc_tags ini setting) describe it."""
    options = _options(request)
    timeout = options.pop("timeout", None)
    if options.get("tags") is None and options.get("replay") is None:
        pytest.fail("kplc_sim: no tag file; give @pytest.mark.kplc_sim(tags=...) or the ini setting kplc_tags",
                    pytrace=False)
    sim = Simulator(**options)
    if timeout is not None:
        sim.session_options["timeout"] = timeout
    request.node.stash[_SIM] = sim
    try:
        yield sim
    finally:
        sim.stop()


@pytest.fixture
def plc(kplc_sim: Simulator) -> Iterator[Session]:
    """A session to the test's simulator, with its tag file."""
    with kplc_sim.connect() as session:
        yield session


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item: pytest.Item, call: pytest.CallInfo[None]) -> Iterator[None]:
    outcome = yield
    report = outcome.get_result()
    sim = item.stash.get(_SIM, None)
    if sim is not None and report.failed:
        report.sections.append(("kplc-sim log", sim.log.strip() or "(nothing logged)"))
