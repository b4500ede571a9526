#!/usr/bin/env bash
# What the adapter's latency timer is worth, and where a short one hurts: flash into the
# wire-true module with latency 16 ms and 1 ms and module turnarounds of 1, 3 and 6 ms, counting
# the requests that had to go out again because their answer was lost.
# Usage: bench/latency.sh [PALIMBO_CLI] [IMAGE_BYTES]
set -euo pipefail
cd "$(dirname "$0")/.."
cli=${1:-build/src/cli/palimbo-cli}
bytes=${2:-4096}
work=$(mktemp -d)
trap 'pkill -P $$ 2>/dev/null || true; rm -rf "$work"' EXIT
"${PALIMBO_MAKE_HEX:-build/bench/palimbo_make_hex}" "$work/fw.hex" "$bytes"
# Frames a clean upload of this image needs: probe, two erases, 2 parts and a write a page,
# the check and the reboot (direct); enter, a block each 128 bytes, finish, check, reboot (CCB).
pages=$(((bytes + 255) / 256))
declare -A needed=([direct]=$((3 + 3 * pages + 2)) [ccb]=$((1 + (bytes + 127) / 128 + 3)))

printf '| protocol | latency | turnaround | outcome | seconds | frames sent | again (lost answers) |\n'
printf '|---|--:|--:|---|--:|--:|--:|\n'
for protocol in direct ccb; do
  for latency in 16 1; do
    for turnaround in 1 3 6; do
      "$cli" simulate --protocol "$protocol" --wire --latency-ms "$latency" \
        --turnaround-ms "$turnaround" --flash-ms 4 >"$work/port" 2>"$work/sim.err" &
      sim=$!
      for _ in $(seq 100); do [[ -s $work/port ]] && break; sleep 0.05; done
      "$cli" flash --json --give-up-after 36 --port "$(head -n1 "$work/port")" "$work/fw.hex" \
        >"$work/flash.json" 2>/dev/null || true
      kill -TERM "$sim"
      wait "$sim" 2>/dev/null || true
      heard=$(sed -n 's/.* polls, \([0-9]*\) commands heard/\1/p' "$work/sim.err")
      result=$(grep '"type":"result"' "$work/flash.json")
      outcome=$(sed 's/.*"outcome":"\([^"]*\)".*/\1/' <<<"$result")
      seconds=$(sed 's/.*"seconds":\([0-9.]*\).*/\1/' <<<"$result")
      printf '| %s | %s ms | %s ms | %s | %s | %s | %s |\n' "$protocol" "$latency" "$turnaround" \
        "$outcome" "$seconds" "$heard" "$((heard - needed[$protocol]))"
    done
  done
done
