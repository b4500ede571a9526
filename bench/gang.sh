#!/usr/bin/env bash
# Several wire-true simulated modules flashed at once by one palimbo-cli flash: wall time and
# the tool's CPU for N = 1, 2, 4, 8 (half direct, half CCB), each against the single module.
# Usage: bench/gang.sh [PALIMBO_CLI] [IMAGE_BYTES] [RUNS]
set -euo pipefail
cd "$(dirname "$0")/.."
cli=${1:-build/src/cli/palimbo-cli}
bytes=${2:-8192}
runs=${3:-3}
work=$(mktemp -d)
trap 'pkill -P $$ 2>/dev/null || true; rm -rf "$work"' EXIT
"${PALIMBO_MAKE_HEX:-build/bench/palimbo_make_hex}" "$work/fw.hex" "$bytes"

# One run of N modules: prints wall seconds, CPU seconds (user + system) and the exit status.
run() {
  local n=$1
  "$cli" simulate --wire --count "$n" --protocol direct,ccb,direct,ccb,direct,ccb,direct,ccb \
    >"$work/ports" 2>/dev/null &
  local sim=$!
  for _ in $(seq 100); do [[ $(wc -l <"$work/ports") -ge $n ]] && break; sleep 0.05; done
  local args=()
  while read -r port; do args+=(--port "$port"); done <"$work/ports"
  local status=0
  /usr/bin/time -f "%e %U %S" -o "$work/time" "$cli" flash --json "${args[@]}" "$work/fw.hex" \
    >/dev/null 2>&1 || status=$?
  kill -TERM "$sim"
  wait "$sim" 2>/dev/null || true
  read -r wall user sys <"$work/time"
  echo "$wall $(awk "BEGIN { print $user + $sys }") $status"
}

printf '%-8s %-10s %-12s %-10s %-18s %s\n' modules "wall s" "wall / N=1" "CPU s" "CPU a module" status
base=""
for n in 1 2 4 8; do
  walls=() cpus=()
  for _ in $(seq "$runs"); do
    read -r wall cpu status < <(run "$n")
    walls+=("$wall") cpus+=("$cpu")
  done
  wall=$(printf '%s\n' "${walls[@]}" | sort -n | sed -n "$(((runs + 1) / 2))p")
  cpu=$(printf '%s\n' "${cpus[@]}" | sort -n | sed -n "$(((runs + 1) / 2))p")
  [[ -n $base ]] || base=$wall
  printf '%-8s %-10s %-12.3f %-10s %-18s %s\n' "$n" "$wall" "$(awk "BEGIN { print $wall / $base }")" \
    "$cpu" "$(printf '%.2f %% of wall' "$(awk "BEGIN { print 100 * $cpu / $n / $wall }")")" "$status"
done
echo "(medians of $runs runs; $bytes-byte image; latency 16 ms, flash 4 ms, turnaround 10 ms)"
