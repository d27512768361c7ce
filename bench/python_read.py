#!/usr/bin/env python3
"""A read of 8 tags through the Python package beside the driver's own read of the same 8 tags.

One simulator (kplc-sim serving examples/demo.csv on 127.0.0.1) and two
sessions to it: one as sessions come (the driver talks to the PLC through the
tool's relay, which tells failures by cause), one with ``direct=True`` (the
driver talks to the PLC itself). For each, the two figures are taken call
by call in turn, and the sessions in turn block by block, so that load on the
machine falls on all alike:

- python: ``session.read(*names)``, timed in Python around the call: the
  JSON request, the pipe to ``kplc serve``, the driver's read, the answer
  and its decoding into Python values;
- driver: the same request with ``"timing": true``; the figure is what
  ``kplc serve`` measured around its ``kplc_mulity_read`` call alone.

A third figure, for scale: the one-shot tool (``kplc read``), a process per read.

usage: python_read.py [--calls N] [--rounds N] [--oneshot N]   (KPLC_TOOL, KPLC_SIM, PYTHONPATH as for the tests)
"""

from __future__ import annotations

import argparse
import os
import statistics
import subprocess
import time
from pathlib import Path

import kplc

DEMO = Path(__file__).resolve().parent.parent / "examples" / "demo.csv"
NAMES = ["Counter", "Speed", "Setpoint", "Total", "Ratio", "Precise", "Uptime", "Lamp"]


def quantiles(samples: list[float]) -> str:
    q = statistics.quantiles(samples, n=10)
    return f"median {statistics.median(samples):8.1f} us   p10 {q[0]:8.1f}   p90 {q[-1]:8.1f}   n={len(samples)}"


def main() -> None:
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--calls", type=int, default=1000, help="calls per block (default 1000)")
    ap.add_argument("--rounds", type=int, default=3, help="rounds of a block per session (default 3)")
    ap.add_argument("--oneshot", type=int, default=20, help="one-shot tool reads (default 20, 0: none)")
    args = ap.parse_args()
    print(f"load average: {' '.join(f'{x:.2f}' for x in os.getloadavg())}")
    modes = {"relay": False, "direct": True}
    python_us: dict[str, list[float]] = {m: [] for m in modes}
    driver_us: dict[str, list[float]] = {m: [] for m in modes}
    with kplc.Simulator(DEMO) as sim:
        sessions = {m: sim.connect(direct=d) for m, d in modes.items()}
        sessions["relay"].write(Counter=-7, Speed=1200, Ratio=0.5, Lamp=True)
        for plc in sessions.values():
            assert plc.read(*NAMES)[:2] == [-7, 1200]
            for _ in range(200):  # warm-up: connection, name resolution, caches
                plc.read(*NAMES)
        for _ in range(args.rounds):
            for mode, plc in sessions.items():
                for _ in range(args.calls):  # call by call, so that a burst of load hits both figures
                    start = time.perf_counter_ns()
                    plc.read(*NAMES)
                    python_us[mode].append((time.perf_counter_ns() - start) / 1000)
                    driver_us[mode].append(plc.request("read", names=NAMES, timing=True)["driver_us"])
        for plc in sessions.values():
            plc.close()
        oneshot_us: list[float] = []
        tool = os.environ.get("KPLC_TOOL", "kplc")
        for _ in range(args.oneshot):
            start = time.perf_counter_ns()
            subprocess.run([tool, "read", "--port", str(sim.port), "--tags", str(DEMO), *NAMES], check=True,
                           stdout=subprocess.DEVNULL)
            oneshot_us.append((time.perf_counter_ns() - start) / 1000)
    for mode in modes:
        print(f"{mode:6}  python read of 8 tags: {quantiles(python_us[mode])}")
        print(f"{mode:6}  driver read of 8 tags: {quantiles(driver_us[mode])}")
        ratio = statistics.median(python_us[mode]) / statistics.median(driver_us[mode])
        print(f"{mode:6}  python / driver (medians): {ratio:.2f}")
    if oneshot_us:
        print(f"one-shot kplc read:            {quantiles(oneshot_us)}")


if __name__ == "__main__":
    main()
