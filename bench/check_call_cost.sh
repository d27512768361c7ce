#!/usr/bin/env bash
# Counts the driver's own instructions per call with callgrind and checks them
# against the budget: a read of 1, 8 and 64 tags and a write of one DINT, each
# on a link that is already up. Instruction counts do not depend on how loaded
# the machine is, so this check is stable where timings are not.
#
#   bench/check_call_cost.sh BUILD_DIR [CALLS]
#
# Fails when a count exceeds its budget by more than 10 %.
set -euo pipefail
build=${1:?usage: check_call_cost.sh BUILD_DIR [CALLS]}
calls=${2:-500}
program=$build/bench/call_cost
command -v valgrind >/dev/null || { echo "check_call_cost: valgrind is not installed" >&2; exit 2; }
[ -x "$program" ] || { echo "check_call_cost: $program is not built" >&2; exit 2; }

out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
status=0
printf '%-8s %12s %10s %8s\n' call instructions budget ratio
for entry in read1:3000 read8:6000 read64:30000 write:3000; do
  call=${entry%%:*} budget=${entry#*:}
  valgrind --tool=callgrind --toggle-collect=kplc_mulity_read --toggle-collect=kplc_write \
    --callgrind-out-file="$out/$call.out" "$program" --call "$call" --calls "$calls" >"$out/$call.log" 2>&1 ||
    { cat "$out/$call.log" >&2; exit 1; }
  # The part dumped after the measured calls: its trigger names them.
  part=$(grep -l '^desc: Trigger: Client Request: calls' "$out/$call".out* | head -n 1)
  total=$(awk '/^(summary|totals):/ {print $2; exit}' "$part")
  per_call=$(( (total + calls / 2) / calls ))
  ratio=$(awk -v a="$per_call" -v b="$budget" 'BEGIN {printf "%.2f", a / b}')
  verdict=ok
  if [ $(( per_call * 10 )) -gt $(( budget * 11 )) ]; then verdict="OVER BUDGET"; status=1; fi
  printf '%-8s %12d %10d %8s  %s\n' "$call" "$per_call" "$budget" "$ratio" "$verdict"
done
exit $status
