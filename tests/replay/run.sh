#!/usr/bin/env bash
# Replays captured driver sessions into kplc-sim --replay and checks that the
# driver, run through the same calls again, gets the same result codes and
# runtime buffers byte for byte.
#
# For each session (normal, UDP, split replies, a connection the PLC closes, a
# reply later than the driver waits), the probe (a stand-in for the panel
# runtime) runs session.txt against the live simulator while tcpdump records
# loopback and the simulator records with --record. Both captures are then
# replayed and the probe's output compared with the live run's. Last, a
# deliberately changed request must be reported as a mismatch with its
# difference.
#
# usage: run.sh [BUILD_DIR]   (default build/debug; needs kplc-sim and libkplc.so built there)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/../lib/capture.sh"
root=$(cd "$here/../.." && pwd)
build=$(cd "${1:-$root/build/debug}" && pwd)
sim=$build/tools/kplc-sim/kplc-sim
work=$(mktemp -d)
pids=()
cleanup() {
    local pid
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; done
    rm -rf "$work"
}
trap cleanup EXIT
[ -n "${KEEP:-}" ] && trap - EXIT

passed=0
failed=0
ok() { passed=$((passed + 1)); }
bad() { failed=$((failed + 1)); echo "FAIL: $*"; }

lib=$(dirname "$(find "$build/src" -name 'libkplc.so' | head -n 1)")
g++ -std=c++20 -Wall -Wextra -Werror -I"$root/include" "$here/probe.cpp" -L"$lib" -lkplc -Wl,-rpath,"$lib" -o "$work/probe"
mkdir -p "$work/panel/driver"
cp "$root/examples/demo.csv" "$work/panel/driver/PLC7F000001_0.csv"

# Starts kplc-sim with the given options, output to $1.{out,err}; sets $sim_pid and $sim_port.
start_sim() {
    local log=$1
    shift
    "$sim" --port 0 "$@" >"$log.out" 2>"$log.err" &
    sim_pid=$!
    pids+=("$sim_pid")
    sim_port=""
    for _ in $(seq 200); do
        # (The file appears only once the background shell has opened it.)
        sim_port=$(sed -n 's/^kplc-sim listening on 127\.0\.0\.1:\([0-9][0-9]*\)$/\1/p' "$log.out" 2>/dev/null || true)
        [ -n "$sim_port" ] && return 0
        kill -0 "$sim_pid" 2>/dev/null || break
        sleep 0.05
    done
    cat "$log.err" >&2
    return 1
}
stop() { kill "$1" 2>/dev/null || true; wait "$1" 2>/dev/null || true; }
probe() { (cd "$work/panel" && "$work/probe" "$@"); }

# Without the right to capture on lo only the simulator's own recordings are replayed.
can_capture=no
capture_possible && can_capture=yes

# name | simulator fault options | lines of session.txt | replay options | pause between calls (ms)
# The PLC closes after 4 requests: the first call's (link start-up, resolve,
# read), then every call's after the driver's restart of the link. The pause
# lets the close arrive before the next call, as it does between a runtime's
# polls; without it the session itself would depend on which comes first.
cases=(
    "normal||99||0"
    "udp|--udp|99||0"
    "split|--split|99||0"
    "closed|--close-after 4|99||100"
    "late|--delay-ms 1500|4|--replay-timing|0"
)
for entry in "${cases[@]}"; do
    IFS='|' read -r name faults lines replay_opts pause <<<"$entry"
    head -n "$lines" "$here/session.txt" >"$work/$name.script"
    transport=tcp
    [[ $faults == *--udp* ]] && transport=udp
    # shellcheck disable=SC2086
    start_sim "$work/$name-live" --tags "$root/examples/demo.csv" --record "$work/$name-rec.pcap" $faults
    live_pid=$sim_pid
    captures=("$name-rec.pcap")
    if [ $can_capture = yes ]; then
        capture_start "$work/$name.pcap" "port $sim_port"
        pids+=("$capture_pid")
        captures=("$name.pcap" "${captures[@]}")
    fi
    probe "$sim_port" $transport "$pause" <"$work/$name.script" >"$work/$name-live.txt"
    stop "$live_pid"
    if [ $can_capture = yes ]; then capture_stop "$work/$name.pcap"; fi

    for cap in "${captures[@]}"; do
        # shellcheck disable=SC2086
        start_sim "$work/$cap-replay" --replay "$work/$cap" $replay_opts
        probe "$sim_port" $transport "$pause" <"$work/$name.script" >"$work/$cap-replay.txt"
        stop "$sim_pid"
        if diff "$work/$name-live.txt" "$work/$cap-replay.txt" >"$work/$cap.diff" &&
            grep -q ', 0 matched none$' "$work/$cap-replay.err"; then
            ok
        else
            bad "$cap: the replay differs from the live session"
            cat "$work/$cap.diff" "$work/$cap-replay.err"
        fi
    done
done
[ $can_capture = yes ] || echo "SKIPPED: tcpdump cannot capture on lo here; replayed the simulator's recordings only"

# A request the capture does not hold (Speed written 0x1235 instead of 0x1234):
# reported with the nearest recorded request and the differing byte, then
# answered from the tag file (--on-mismatch model), so the rest still matches.
sed 's/^write 2 0 3412$/write 2 0 3512/' "$here/session.txt" >"$work/changed.script"
start_sim "$work/mismatch" --replay "$work/normal-rec.pcap" --on-mismatch=model --tags "$root/examples/demo.csv"
probe "$sim_port" tcp <"$work/changed.script" >"$work/mismatch.txt"
stop "$sim_pid"
if grep -q 'request [0-9]* (word write, [0-9]* bytes) matches no recorded request; nearest word write request is recorded request [0-9]* ([0-9]* bytes), 1 byte differs' "$work/mismatch.err" &&
    grep -q 'offset [0-9]*: live 35, recorded 34$' "$work/mismatch.err" &&
    grep -q ', 1 matched none$' "$work/mismatch.err" &&
    grep -q '^write 2 0 3512 -> 0$' "$work/mismatch.txt"; then ok; else
    bad "changed request not reported as a mismatch with its difference"
    cat "$work/mismatch.err"
fi

# In model mode a write the capture holds changes the tag file's memory too:
# Counter alone was never read in the recording, so the model answers it.
printf 'write 1 0 44332211\nread 1 0 4\n' >"$work/model.script"
start_sim "$work/model" --replay "$work/normal-rec.pcap" --on-mismatch=model --tags "$root/examples/demo.csv"
probe "$sim_port" tcp <"$work/model.script" >"$work/model.txt"
stop "$sim_pid"
if grep -q '^read 1 0 4 -> 0 | 0 44332211' "$work/model.txt"; then ok; else
    bad "a recorded write did not reach the model"
    cat "$work/model.txt" "$work/model.err"
fi

echo "replay: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
