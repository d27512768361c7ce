#!/usr/bin/env bash
# Captures a session of the real driver against the simulator on loopback:
# the kplc tool (which loads libkplc.so the way the panel runtime does) writes
# one value of every type and shape, reads every tag back, and repeats a little
# of it over UDP. Every command the driver sends and every reply it reads is in
# the capture.
#
# usage: session.sh BUILD_DIR WORK_DIR
# Leaves in WORK_DIR: session.pcapng (when this machine lets us capture on lo),
# tcp.trace and udp.trace (the simulator's hex trace of every frame), ports
# ("TCP UDP") and tags.csv (the tag file served).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$1
work=$2
sim=$build/tools/kplc-sim/kplc-sim
tool=$build/tools/kplc/kplc
tags=$here/../../examples/demo.csv
cp "$tags" "$work/tags.csv"

pids=()
cleanup() {
    local pid
    for pid in "${pids[@]}"; do
        kill "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
}
trap cleanup EXIT

# Starts the simulator with extra options; prints the port it reported.
start_sim() {
    local out=$1
    shift
    "$sim" --listen 127.0.0.1 --port 0 --tags "$tags" --trace "$@" >"$out" 2>&1 &
    pids+=($!)
    local port="" pid=$!
    for _ in $(seq 100); do
        port=$(sed -n 's/^kplc-sim listening on 127\.0\.0\.1:\([0-9][0-9]*\)$/\1/p' "$out" | head -n 1)
        [ -n "$port" ] && break
        kill -0 "$pid" 2>/dev/null || break
        sleep 0.05
    done
    [ -n "$port" ] || { cat "$out" >&2; echo "session: the simulator did not start" >&2; return 1; }
    echo "$port"
}

tcp_port=$(start_sim "$work/tcp.trace")
udp_port=$(start_sim "$work/udp.trace" --udp)
echo "$tcp_port $udp_port" >"$work/ports"

# dumpcap needs the right to capture on lo (root or CAP_NET_RAW); without it
# the checks run on a capture built from the simulator's trace instead.
capture=""
if command -v dumpcap >/dev/null; then
    dumpcap -q -i lo -f "port $tcp_port or port $udp_port" -w "$work/session.pcapng" 2>"$work/dumpcap.err" &
    capture=$!
    pids+=("$capture")
    for _ in $(seq 100); do
        grep -q 'Capturing on' "$work/dumpcap.err" && break
        kill -0 "$capture" 2>/dev/null || { capture=""; break; }
        sleep 0.05
    done
fi

kplc() { "$tool" --plc 127.0.0.1 --tags "$tags" "$@" >>"$work/tool.out" 2>&1; }

# One value for every writer: scalars of 16, 32 and 64 bits, BOOLs on a bit
# device (set and reset bit), in a word area (word-area bit write) and inside
# structures (read-modify-write), arrays of one to three dimensions, strings
# and string array elements, and tags local to the programs Main and Aux.
cut -f1 "$here/writes.tsv" | xargs -d '\n' "$tool" --plc 127.0.0.1 --tags "$tags" --port "$tcp_port" write \
    >>"$work/tool.out" 2>&1
kplc --port "$tcp_port" write Lamp=0
# Every tag read back (the one name with a comma in it would need the file's
# own column splitting, so it is left out).
kplc --port "$tcp_port" read $(cut -d, -f2 "$tags" | grep -v '^Axis')
kplc --port "$udp_port" --udp write Speed=77 Ready=1
kplc --port "$udp_port" --udp read Speed Ready Levels

if [ -n "$capture" ]; then
    sleep 0.3
    kill -INT "$capture"
    wait "$capture" || true
fi
