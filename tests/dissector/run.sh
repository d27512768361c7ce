#!/usr/bin/env bash
# Decodes captures with tshark and the kplc dissector and checks what it shows.
#
#  1. A session of the real driver against the simulator (session.sh): every
#     command the driver sends and every reply it reads, over TCP and UDP.
#     Captured on lo where this machine lets us (root or CAP_NET_RAW), else
#     built from the simulator's hex trace with text2pcap. Checked: every
#     frame decoded, nothing flagged, and the field values (check_session.awk).
#  2. Hand-made frames (frames.txt): damaged frames must be flagged, and good
#     frames split across segments or sharing one must still decode.
#  3. The heuristic: the session decodes with no port preference set, and a
#     capture of HTTP, DNS, TLS, SSH and a register protocol on TCP (others.py) shows no kplc.
#
# usage: run.sh [BUILD_DIR]   (default build/debug; needs kplc-sim, kplc, libkplc.so)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source "$here/../lib/capture.sh"
root=$(cd "$here/../.." && pwd)
build=$(cd "${1:-$root/build/debug}" && pwd)
lua=$root/dissector/kplc.lua
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

passed=0
failed=0
ok() { passed=$((passed + 1)); }
bad() { failed=$((failed + 1)); echo "FAIL: $*"; }

# tshark with the dissector; extra arguments follow. Warnings about running as
# root go to stderr, which is kept for a failure's report.
decode() { tshark -n -X "lua_script:$lua" "$@" 2>>"$work/tshark.err"; }

FIELDS=(frame.number tcp.stream udp.stream kplc.kind kplc.seq kplc.cmd kplc.for_cmd kplc.echo_cmd kplc.request_in
    kplc.scope kplc.name kplc.area kplc.location kplc.words kplc.word kplc.target kplc.bit_value
    kplc.bit kplc.device kplc.bit_address kplc.item.bit kplc.program_name kplc.program)
field_args=()
for f in "${FIELDS[@]}"; do field_args+=(-e "$f"); done

# --- 1. the driver's session ------------------------------------------------
"$here/session.sh" "$build" "$work"
read -r tcp_port udp_port <"$work/ports"
cap=$work/session.pcapng
ports=(-o "kplc.tcp_ports:$tcp_port" -o "kplc.udp_ports:$udp_port")
if [ -s "$cap" ] && [ "$(decode -r "$cap" "${ports[@]}" -Y kplc | wc -l)" -gt 0 ]; then
    echo "session captured on lo"
else
    # One TCP and one UDP conversation rebuilt from the simulator's trace
    # ('> ' request, '< ' reply, one frame per line).
    echo "session rebuilt from the simulator's trace (no capture on lo here)"
    for proto in tcp udp; do
        port=$tcp_port; opt=-T
        [ "$proto" = udp ] && { port=$udp_port; opt=-u; }
        sed -n 's/^\([<>]\) \([0-9A-F ]*\)$/\1 \2/p' "$work/$proto.trace" | sed 's/ //g; s/^./& /' >"$work/$proto.txt"
        text2pcap -q -r '^(?<dir>[<>])\s(?<data>[0-9A-F]+)$' $opt "$port,40000" -4 127.0.0.1,127.0.0.2 \
            "$work/$proto.txt" "$work/$proto.pcapng" >/dev/null 2>>"$work/text2pcap.err"
    done
    mergecap -w "$cap" "$work/tcp.pcapng" "$work/udp.pcapng"
fi

# Every frame of the simulator's trace is one kplc frame in the capture, found
# through the port preferences and through Decode As alike.
requests=$(cat "$work/tcp.trace" "$work/udp.trace" | grep -c '^> ' || true)
replies=$(cat "$work/tcp.trace" "$work/udp.trace" | grep -c '^< ' || true)
for way in prefs decode-as; do
    args=("${ports[@]}")
    [ $way = decode-as ] && args=(-d "tcp.port==$tcp_port,kplc" -d "udp.port==$udp_port,kplc" -o kplc.tcp_ports: -o kplc.udp_ports:)
    kinds=$(decode -r "$cap" "${args[@]}" -Y kplc -T fields -E occurrence=a -E aggregator=' ' -e kplc.kind | tr ' ' '\n')
    got_requests=$(grep -c '^request$' <<<"$kinds" || true)
    got_replies=$(grep -c '^response$' <<<"$kinds" || true)
    if [ "$got_requests" -eq "$requests" ] && [ "$got_replies" -eq "$replies" ] && [ "$requests" -gt 0 ]; then ok; else
        bad "$way: decoded $got_requests requests and $got_replies replies; the simulator traced $requests and $replies"
    fi
done

# No payload left to the generic data dissector, nothing malformed or flagged.
leftover=$(decode -2 -r "$cap" "${ports[@]}" -Y \
    '(tcp.len > 0 && !kplc && !tcp.reassembled_in) || (udp && !kplc) || data || _ws.malformed || _ws.expert.severity >= warning' \
    -T fields -e frame.number | tr '\n' ' ')
if [ -z "$leftover" ]; then ok; else bad "frames undecoded or flagged: $leftover"; fi

decode -r "$cap" "${ports[@]}" -Y kplc -T fields -E separator=/t -E occurrence=a -E aggregator='|' \
    "${field_args[@]}" >"$work/session.tsv"
awk -F, '$8 != "-1" && $8 != "" { split($2, p, "."); print p[1] }' "$work/tags.csv" | sort -u >"$work/programs"
if summary=$(awk -f "$here/check_session.awk" "$here/writes.tsv" "$work/programs" "$work/session.tsv"); then
    echo "$summary" | tail -n 1
    ok
else
    echo "$summary"
    bad "session field checks"
fi

# --- 2. hand-made frames ----------------------------------------------------
# frames.txt: "tcp|udp  > or <  EXPECT  hex..." per segment, where EXPECT is
# the expert info the frame must carry, "-" for none, or "+" for a segment
# that holds only the start of a frame and must wait for the rest.
sed -n 's/^\(tcp\|udp\) \([<>]\) \([-+a-z_]*\) \(.*\)$/\1 \2 \3 \4/p' "$here/frames.txt" >"$work/frames"
for proto in tcp udp; do
    opt=-T
    [ "$proto" = udp ] && opt=-u
    awk -v p="$proto" '$1 == p { line = $2 " "; for (i = 4; i <= NF; i++) line = line $i; print line }' \
        "$work/frames" >"$work/$proto-frames.txt"
    text2pcap -q -r '^(?<dir>[<>])\s(?<data>[0-9A-Fa-f]+)$' $opt 8500,40000 -4 127.0.0.1,127.0.0.2 \
        "$work/$proto-frames.txt" "$work/$proto-frames.pcapng" >/dev/null 2>>"$work/text2pcap.err"
    mapfile -t expected < <(awk -v p="$proto" '$1 == p { print $3 }' "$work/frames")
    # Per frame: "kplc" when a kplc frame ends in it, "held" when the segment
    # waits for reassembly, then the kplc expert infos it carries.
    mapfile -t shown < <(decode -2 -r "$work/$proto-frames.pcapng" -T pdml | awk '
        /^<packet>/ { line = "" }
        /<proto name="kplc"/ { line = line " kplc" }
        /<field name="tcp.reassembled_in"/ { line = line " held" }
        /<field name="kplc.expert\./ { match($0, /kplc\.expert\.[a-z_]*/); line = line " " substr($0, RSTART + 12, RLENGTH - 12) }
        /^<\/packet>/ { print line " " }')
    [ "${#shown[@]}" -eq "${#expected[@]}" ] && ok || bad "$proto: ${#expected[@]} frames written, ${#shown[@]} decoded"
    for i in "${!expected[@]}"; do
        frame=$((i + 1)) want=${expected[$i]} got=${shown[$i]:-}
        case $want in
            +) [[ $got == " held " ]] && ok || bad "$proto frame $frame: not held back for reassembly ($got)" ;;
            -) [[ $got =~ ^(\ kplc)+\ $ ]] && ok || bad "$proto frame $frame: not decoded cleanly ($got)" ;;
            *) [[ $got == *" kplc "* && $got == *" $want "* ]] && ok || bad "$proto frame $frame: not flagged $want ($got)" ;;
        esac
    done
done

# The Info column names each command once, then request or response.
info=$(decode -r "$work/tcp-frames.pcapng" -T fields -e _ws.col.Info | head -n 2 | tr '\n' '|')
[ "$info" = "First catalogue request seq=0|First catalogue response seq=0|" ] && ok ||
    bad "Info column of the first catalogue exchange: $info"

# --- 3. the heuristic: any port, no preference set ----------------------------
# The session ran on ports the system chose; with both port preferences empty
# every frame must still be found.
noprefs=(-o kplc.tcp_ports: -o kplc.udp_ports:)
kinds=$(decode -r "$cap" "${noprefs[@]}" -Y kplc -T fields -E occurrence=a -E aggregator=' ' -e kplc.kind | tr ' ' '\n')
got_requests=$(grep -c '^request$' <<<"$kinds" || true)
got_replies=$(grep -c '^response$' <<<"$kinds" || true)
if [ "$got_requests" -eq "$requests" ] && [ "$got_replies" -eq "$replies" ]; then ok; else
    bad "heuristic: decoded $got_requests requests and $got_replies replies; the simulator traced $requests and $replies"
fi

# Other protocols on loopback (HTTP, DNS, TLS, SSH, registers on TCP): each decodes
# as itself when told its port, and the heuristic claims none of it.
if ! capture_possible; then
    echo "SKIPPED: tcpdump cannot capture on lo here; no capture of other protocols"
else
    read -r -a p < <(python3 -c 'import socket
s = [socket.socket() for _ in range(5)]
for x in s: x.bind(("127.0.0.1", 0))
print(*[x.getsockname()[1] for x in s])')
    openssl req -x509 -newkey rsa:2048 -nodes -keyout "$work/key.pem" -out "$work/cert.pem" -subj /CN=localhost \
        -days 1 >/dev/null 2>&1
    others=$work/others.pcap
    capture_start "$others" "port ${p[0]} or port ${p[1]} or port ${p[2]} or port ${p[3]} or port ${p[4]}"
    python3 "$here/others.py" "$work/cert.pem" "$work/key.pem" "${p[@]}"
    capture_stop "$others"
    as=(-d "tcp.port==${p[0]},http" -d "udp.port==${p[1]},dns" -d "tcp.port==${p[2]},tls" -d "tcp.port==${p[3]},ssh"
        -d "tcp.port==${p[4]},mbtcp")
    for proto in http dns tls ssh mbtcp; do
        n=$(decode -r "$others" "${as[@]}" -Y "$proto" | wc -l)
        [ "$n" -gt 0 ] && ok || bad "the capture of other protocols holds no $proto"
    done
    claimed=$(decode -r "$others" -Y kplc -T fields -e frame.number | tr '\n' ' ')
    [ -z "$claimed" ] && ok || bad "heuristic: frames of other protocols taken for kplc: $claimed"
fi

echo "$passed passed, $failed failed"
if [ "$failed" -ne 0 ]; then
    echo "--- tshark stderr" >&2
    grep -v 'This could be dangerous' "$work/tshark.err" >&2 || true
    exit 1
fi
