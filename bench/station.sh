#!/usr/bin/env bash
# A production station's run on the simulator: flash --station --count N on one line where,
# a while after each reboot, a fresh module takes the rebooted one's place; then the record is
# checked line by line against the firmware file.
# Usage: [CURRENT_EVERY=N] [SKIP_SAME=1] [FORWARD=URL [OUTAGE=SECONDS:CLUSTER]]
#        bench/station.sh [PALIMBO_CLI] [MODULES] [HEX_FILE]
# CURRENT_EVERY=2 makes every second module hold the firmware already (the first on);
# SKIP_SAME=1 runs the station with --skip-same, which only reboots those. FORWARD forwards the
# record to that database, whose table must then hold each line once; OUTAGE stops that
# database (a cluster of tests/support/postgres.sh) after the first module for SECONDS.
set -euo pipefail
cd "$(dirname "$0")/.."
cli=${1:-build/src/cli/palimbo-cli}
modules=${2:-20}
hex=${3:-examples/example.hex}
work=$(mktemp -d)
trap 'pkill -P $$ 2>/dev/null || true; rm -rf "$work"' EXIT

every=${CURRENT_EVERY:-0}
held=()
((every > 0)) && held=(--flash-from "$hex" --flash-from-every "$every")
skip=()
[[ -n ${SKIP_SAME:-} ]] && skip=(--skip-same)
forward=()
[[ -n ${FORWARD:-} ]] && forward=(--forward "$FORWARD")
"$cli" simulate --replace-after-ms 300 "${held[@]}" >"$work/port" 2>"$work/sim.err" &
sim=$!
for _ in $(seq 100); do [[ -s $work/port ]] && break; sleep 0.05; done
port=$(head -n 1 "$work/port")
status=0
/usr/bin/time -f "%e" -o "$work/time" "$cli" flash --station --count "$modules" "${skip[@]}" \
  "${forward[@]}" --record "$work/record.jsonl" --port "$port" "$hex" >"$work/log" 2>&1 &
station=$!
if [[ -n ${OUTAGE:-} ]]; then
  postgres=tests/support/postgres.sh cluster=${OUTAGE#*:}
  until grep -q 'module 1:' "$work/log"; do sleep 0.1; done
  sh $postgres stop "$cluster"
  echo "database stopped after module 1 for ${OUTAGE%%:*} s"
  sleep "${OUTAGE%%:*}"
  sh $postgres start "$cluster"
fi
wait $station || status=$?
kill -TERM "$sim"
wait "$sim" 2>/dev/null || true

grep -E 'module [0-9]+:|station:' "$work/log" | cut -f 2-
"$cli" info --json "$hex" >"$work/info.json"
python3 - "$work/record.jsonl" "$work/info.json" "$port" "$hex" "$modules" "$every" \
  "${SKIP_SAME:-}" <<'PY'
import json, sys
record, info, port, hex_file, modules, every, skip = sys.argv[1:8]
info = json.load(open(info))
lines = [json.loads(l) for l in open(record)]
assert len(lines) == int(modules), f"{len(lines)} lines for {modules} modules"
last = ""
for n, line in enumerate(lines, 1):
    current = skip and int(every) > 0 and (n - 1) % int(every) == 0
    want = {"module": n, "port": port, "file": hex_file, "file_bytes": info["length"],
            "file_crc": "%04X" % info["crc"], "exit_status": 0,
            "outcome": "already current" if current else "verified"}
    bad = {k: (line.get(k), v) for k, v in want.items() if line.get(k) != v}
    assert not bad, f"line {n}: {bad}"
    assert line["time"] >= last and line["seconds"] > 0 and line["host"], f"line {n}: {line}"
    last = line["time"]
seconds = [l["seconds"] for l in lines]
print(f"record: {len(lines)} lines checked; seconds a module {min(seconds)} to {max(seconds)}")
PY
if [[ -n ${FORWARD:-} ]]; then
  grep -E '^[0-9:]+.records:|warning: --forward' "$work/log" | sed 's/^[0-9:]*\t//'
  ids=$(sed 's/^{"id":"\([^"]*\)".*/\1/' "$work/record.jsonl" | paste -sd,)
  rows=$(psql -At "$FORWARD" -c "SELECT count(*) FROM palimbo_uploads WHERE id = ANY ('{$ids}')")
  echo "database: $rows of the record's $modules lines"
  [[ $rows == "$modules" ]] || status=1
fi
echo "station: exit status $status, $(cat "$work/time") s for $modules modules"
exit "$status"
