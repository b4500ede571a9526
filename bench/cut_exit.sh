#!/usr/bin/env bash
# How long palimbo-cli flash takes to exit after the line is cut (the module's terminal goes
# away) or the module falls silent (its process is stopped), per protocol and stage.
# Usage: bench/cut_exit.sh [PALIMBO_CLI] [RUNS]
set -euo pipefail
cd "$(dirname "$0")/.."
cli=${1:-build/src/cli/palimbo-cli}
runs=${2:-3}
give_up=36
work=$(mktemp -d)
trap 'pkill -P $$ 2>/dev/null || true; rm -rf "$work"' EXIT
"${PALIMBO_MAKE_HEX:-build/bench/palimbo_make_hex}" "$work/fw.hex" 20000

# One run: waits for MARK in flash's JSON output, then does ACTION to the module; prints the
# seconds from the action to flash's exit and the exit status.
run() {
  local protocol=$1 mark=$2 action=$3
  "$cli" simulate --protocol "$protocol" >"$work/sim.out" 2>/dev/null &
  local sim=$!
  local pts=""
  for _ in $(seq 100); do pts=$(head -n1 "$work/sim.out" 2>/dev/null || true); [[ -n $pts ]] && break; sleep 0.05; done
  "$cli" flash --json --give-up-after "$give_up" --port "$pts" "$work/fw.hex" >"$work/flash.out" 2>"$work/flash.err" &
  local flash=$!
  until grep -q -- "$mark" "$work/flash.out" 2>/dev/null; do sleep 0.005; done
  local cut
  cut=$(date +%s%N)
  kill "-$action" "$sim"
  local status=0
  wait "$flash" || status=$?
  local done_at
  done_at=$(date +%s%N)
  kill -KILL "$sim" 2>/dev/null || true
  wait "$sim" 2>/dev/null || true
  echo "$(((done_at - cut) / 1000000)) $status"
}

printf '%-8s %-12s %-10s %s\n' protocol stage cut "ms from cut to exit (exit status), $runs runs"
for protocol in direct ccb; do
  if [[ $protocol == direct ]]; then pages='"text":"Writing FLASH"'; check='"text":"Checking content.."'
  else pages='"text":"Transfer ok."'; check='"text":"Checking chip content.."'; fi
  for stage in entry pages check; do
    case $stage in
      entry) mark='"text":"Entering bootloader mode."' ;;
      pages) mark=$pages ;;
      check) mark=$check ;;
    esac
    for action in KILL STOP; do
      line=""
      for _ in $(seq "$runs"); do
        read -r ms status < <(run "$protocol" "$mark" "$action")
        line+="$ms ($status)  "
      done
      what=$([[ $action == KILL ]] && echo "port lost" || echo "silent")
      printf '%-8s %-12s %-10s %s\n' "$protocol" "$stage" "$what" "$line"
    done
  done
done
echo "(silent: --give-up-after $give_up)"
