#!/usr/bin/env bash
# Runs a Windows program under Wine with a time limit and a watch on its memory, so that a
# program that runs away under Wine fails its test instead of holding the machine. The resident
# size is watched, not the address space: Wine reserves large ranges that it never touches.
# Usage: wine_guard.sh SECONDS MAX_RESIDENT_MB PROGRAM.exe [ARG...]
set -uo pipefail
limit=$1 max_mb=$2
shift 2
wine=${PALIMBO_WINE:-/usr/lib/wine/wine64}

setsid "$wine" "$@" &
pid=$!
trap 'kill -KILL -- -"$pid" 2>/dev/null; exit 143' TERM INT HUP
started=$SECONDS
verdict=
while kill -0 "$pid" 2>/dev/null; do
  resident_kb=$(ps -o rss= -g "$pid" 2>/dev/null | awk '{s += $1} END {print s + 0}')
  if ((resident_kb > max_mb * 1024)); then
    verdict="resident size $((resident_kb / 1024)) MB above $max_mb MB"
  elif ((SECONDS - started > limit)); then
    verdict="still running after $limit s"
  fi
  if [[ -n $verdict ]]; then
    kill -KILL -- -"$pid" 2>/dev/null
    wait "$pid" 2>/dev/null
    echo "wine_guard: stopped $1: $verdict" >&2
    exit 124
  fi
  sleep 0.5
done
wait "$pid"
