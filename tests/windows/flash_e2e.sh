#!/usr/bin/env bash
# The Windows palimbo-cli.exe under Wine flashes a module served by the Linux simulate on a
# pseudo-terminal that Wine knows as a COM port; the module's flash must equal the image, and the log
# must be the Linux build's apart from the time stamps and the port's name.
# Usage: flash_e2e.sh WINDOWS_CLI LINUX_CLI direct|ccb HEX_FILE COMn
set -euo pipefail
win_cli=$1 linux_cli=$2 protocol=$3 hex=$4 com=$5
: "${WINEPREFIX:?a Wine prefix of the tests}"
wine=${PALIMBO_WINE:-/usr/lib/wine/wine64}
work=$(mktemp -d)
sims=()
cleanup() {
  for pid in "${sims[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT

# Starts a simulated module; sets `pts` to its terminal and `sim` to its process.
start_module() {
  local name=$1
  "$linux_cli" simulate --protocol "$protocol" --dump "$work/$name.flash" \
    >"$work/$name.sim" 2>"$work/$name.sim.err" &
  sim=$!
  sims+=("$sim")
  for _ in $(seq 100); do
    pts=$(head -n1 "$work/$name.sim" 2>/dev/null || true)
    [[ -n $pts ]] && return 0
    sleep 0.1
  done
  echo "simulate did not start: $(cat "$work/$name.sim.err")" >&2
  return 1
}

# Stops the module, so that it writes its flash, and compares that with the image.
check_flash() {
  local name=$1
  kill -INT "$sim"
  wait "$sim"
  local length
  length=$(stat -c %s "$work/image.bin")
  if ! cmp -n "$length" "$work/image.bin" "$work/$name.flash"; then
    echo "$name: the module's flash differs from the image" >&2
    return 1
  fi
}

# The log with time stamps, carriage returns and the port's name taken out.
normalise() {
  sed -e 's/\r$//' -e 's/^[0-9][0-9]:[0-9][0-9]:[0-9][0-9]\t//' -e "s|^$2 opened\.|PORT opened.|" "$1"
}

"$linux_cli" hex2bin "$hex" "$work/image.bin"

start_module windows
ln -sfn "$pts" "$WINEPREFIX/dosdevices/${com,,}"
win_hex="Z:$(printf '%s' "$(realpath "$hex")" | tr / '\\')"
started=$(date +%s%N)
if ! timeout 180 "$wine" "$win_cli" flash --port "$com" "$win_hex" >"$work/windows.log" \
    2>"$work/windows.err"; then
  echo "Windows upload failed:" >&2
  cat "$work/windows.log" "$work/windows.err" >&2
  exit 1
fi
windows_ms=$((($(date +%s%N) - started) / 1000000))
check_flash windows

start_module linux
started=$(date +%s%N)
timeout 180 "$linux_cli" flash --port "$pts" "$hex" >"$work/linux.log" 2>"$work/linux.err"
linux_ms=$((($(date +%s%N) - started) / 1000000))
check_flash linux

if ! diff <(normalise "$work/windows.log" "$com") <(normalise "$work/linux.log" "$pts"); then
  echo "the logs of the two builds differ" >&2
  exit 1
fi
grep -q "UPLOAD SUCCESSFULLY COMPLETED." "$work/windows.log"
echo "$protocol upload: Windows build under Wine $windows_ms ms, Linux build $linux_ms ms"
