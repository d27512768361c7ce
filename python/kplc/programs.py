"""Where the ``kplc`` tool and the ``kplc-sim`` simulator are found.

In this order: the path given to the call (``tool=`` / ``sim=``), the
environment variable (``KPLC_TOOL`` / ``KPLC_SIM``), then ``PATH``.
"""

from __future__ import annotations

import os
import shutil
from pathlib import Path

from .errors import SessionLost

_ENV = {"kplc": "KPLC_TOOL", "kplc-sim": "KPLC_SIM"}


def find_program(name: str, explicit: str | os.PathLike[str] | None = None) -> str:
    """The absolute path of program ``name`` (``"kplc"`` or ``"kplc-sim"``)."""
    env = _ENV[name]
    for candidate, origin in ((explicit, "the path given"), (os.environ.get(env), env)):
        if candidate:
            path = Path(candidate).expanduser()
            if not (path.is_file() and os.access(path, os.X_OK)):
                raise SessionLost(f"{name}: {origin} ({candidate}) is not an executable file")
            return str(path.resolve())
    found = shutil.which(name)
    if found is None:
        raise SessionLost(f"cannot find {name}: pass its path, set {env}, or put it on PATH")
    return found
