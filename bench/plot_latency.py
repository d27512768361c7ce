#!/usr/bin/env python3
"""Latency of a read against its batch size, as an SVG, from bench_e2e_loopback's own output.

    build/bench-release/bench/bench_e2e_loopback --nagle-only --sizes 1,2,4,8,16,32,64 > run1.txt
    (two more runs: run2.txt, run3.txt)
    bench/plot_latency.py run1.txt run2.txt run3.txt > docs/latency.svg

Each run's "median_us" of the driver, the polled floor and the raw floor is
taken for every readN series (Nagle as the sockets come, or --nagle off for
the TCP_NODELAY rows); the plot draws the median over the runs as a line and
the range over the runs as a band. Standard library only.
"""
import argparse
import math
import re
import statistics
import sys

CLIENTS = [("driver", "driver (kplc_mulity_read)", "#c0392b"),
           ("polled", "polled floor (raw socket + the driver's polls)", "#2471a3"),
           ("floor", "raw floor (send + blocking recv)", "#7f8c8d")]
ROW = re.compile(r"^read(\d+)\s+(driver|floor|polled)\s+(on|off)\s+\d+\s+([0-9.]+)\s")


def read_runs(paths, nagle):
    """{(size, client): [median_us of each run]}"""
    values = {}
    for path in paths:
        with open(path, encoding="utf-8") as f:
            for line in f:
                m = ROW.match(line)
                if m and m.group(3) == nagle:
                    values.setdefault((int(m.group(1)), m.group(2)), []).append(float(m.group(4)))
    return values


def svg(values, title):
    sizes = sorted({size for size, _ in values})
    if not sizes:
        sys.exit("plot_latency: no readN rows in the input")
    width, height = 720, 440
    left, right, top, bottom = 70, 30, 50, 120
    # Scaled to the medians: one run's outlier (another process holding the
    # cores) would flatten the lines; bands beyond the axis are cut at its top.
    y_max = max(statistics.median(vs) for vs in values.values()) * 1.25
    y_max = math.ceil(y_max / 5) * 5
    x_lo, x_hi = math.log2(sizes[0]), math.log2(sizes[-1]) if sizes[-1] > sizes[0] else math.log2(sizes[0]) + 1

    def x(size):
        return left + (math.log2(size) - x_lo) / (x_hi - x_lo) * (width - left - right)

    def y(us):
        return top + (1 - min(us, y_max) / y_max) * (height - top - bottom)

    out = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
           f'font-family="sans-serif" font-size="12">',
           f'<rect width="{width}" height="{height}" fill="white"/>',
           f'<text x="{width / 2}" y="24" text-anchor="middle" font-size="15">{title}</text>']
    # Axes, grid and ticks.
    step = 5 if y_max <= 60 else 10
    for us in range(0, int(y_max) + 1, step):
        out.append(f'<line x1="{left}" x2="{width - right}" y1="{y(us):.1f}" y2="{y(us):.1f}" stroke="#e5e5e5"/>')
        out.append(f'<text x="{left - 8}" y="{y(us) + 4:.1f}" text-anchor="end">{us}</text>')
    for size in sizes:
        out.append(f'<line x1="{x(size):.1f}" x2="{x(size):.1f}" y1="{top}" y2="{height - bottom}" stroke="#f0f0f0"/>')
        out.append(f'<text x="{x(size):.1f}" y="{height - bottom + 18}" text-anchor="middle">{size}</text>')
    out.append(f'<line x1="{left}" x2="{width - right}" y1="{height - bottom}" y2="{height - bottom}" stroke="black"/>')
    out.append(f'<line x1="{left}" x2="{left}" y1="{top}" y2="{height - bottom}" stroke="black"/>')
    out.append(f'<text x="{(left + width - right) / 2}" y="{height - bottom + 38}" text-anchor="middle">'
               'tags per batch (log scale)</text>')
    out.append(f'<text transform="translate(18,{(top + height - bottom) / 2}) rotate(-90)" text-anchor="middle">'
               'median latency per call (µs)</text>')
    # One band (range over the runs) and one line (median) per client.
    for row, (client, label, colour) in enumerate(CLIENTS):
        points = [(s, values[(s, client)]) for s in sizes if (s, client) in values]
        if not points:
            continue
        upper = " ".join(f"{x(s):.1f},{y(max(vs)):.1f}" for s, vs in points)
        lower = " ".join(f"{x(s):.1f},{y(min(vs)):.1f}" for s, vs in reversed(points))
        out.append(f'<polygon points="{upper} {lower}" fill="{colour}" fill-opacity="0.15" stroke="none"/>')
        line = " ".join(f"{x(s):.1f},{y(statistics.median(vs)):.1f}" for s, vs in points)
        out.append(f'<polyline points="{line}" fill="none" stroke="{colour}" stroke-width="2"/>')
        for s, vs in points:
            out.append(f'<circle cx="{x(s):.1f}" cy="{y(statistics.median(vs)):.1f}" r="3" fill="{colour}"/>')
        ly = height - bottom + 58 + 18 * row
        out.append(f'<line x1="{left}" x2="{left + 24}" y1="{ly - 4}" y2="{ly - 4}" stroke="{colour}" stroke-width="2"/>')
        out.append(f'<text x="{left + 32}" y="{ly}">{label}</text>')
    runs = max(len(vs) for vs in values.values())
    out.append(f'<text x="{width - right}" y="{height - 10}" text-anchor="end" fill="#555">'
               f'line: median of {runs} runs; band: their range (cut at the top of the axis)</text>')
    out.append("</svg>")
    return "\n".join(out) + "\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("runs", nargs="+", help="saved outputs of bench_e2e_loopback")
    parser.add_argument("--nagle", choices=["on", "off"], default="on",
                        help="rows with Nagle's algorithm as the sockets come (on) or TCP_NODELAY (off)")
    parser.add_argument("--title", default="kplc_mulity_read over loopback against its floors")
    args = parser.parse_args()
    sys.stdout.write(svg(read_runs(args.runs, args.nagle), args.title))


if __name__ == "__main__":
    main()
