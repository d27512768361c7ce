# Loopback captures with tcpdump for the test scripts (sourced).
#
#   capture_possible            true when tcpdump may capture on lo (root or CAP_NET_RAW)
#   capture_start FILE FILTER   starts tcpdump writing FILE; sets capture_pid
#   capture_stop FILE           stops it once FILE has stopped growing

capture_possible() {
    command -v tcpdump >/dev/null || return 1
    # tcpdump still capturing when timeout stops it: exit status 124.
    local rc=0
    timeout 1 tcpdump -i lo -w /dev/null 'port 1' >/dev/null 2>&1 || rc=$?
    [ $rc -eq 124 ]
}

capture_start() {
    tcpdump -Z root --immediate-mode -B 32768 -i lo -U -w "$1" "$2" 2>"$1.err" &
    capture_pid=$!
    for _ in $(seq 100); do grep -q 'listening on' "$1.err" && break; sleep 0.05; done
    sleep 0.2
}

capture_stop() {
    # tcpdump drops what it has not written yet when it is stopped: wait until
    # the file stops growing (it can lag behind on a busy machine).
    local last=-1 size
    for _ in $(seq 40); do
        sleep 0.3
        size=$(stat -c %s "$1")
        [ "$size" = "$last" ] && break
        last=$size
    done
    kill -INT "$capture_pid"
    wait "$capture_pid" || true
}
