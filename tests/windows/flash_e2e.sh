#!/usr/bin/env bash
# The Windows palimbo-cli.exe under Wine flashes a module served by the Linux simulate on a
# pseudo-terminal that Wine knows as a COM port; the module's flash must equal the image, and the log
# must be the Linux build's apart from the time stamps and the port's name.
# Usage: flash_e2e.sh WINDOWS_CLI LINUX_CLI direct|ccb HEX_FILE COMn
set -euo pipefail
win_cli=$1 linux_cli=$2 protocol=$3 hex=$4 com=$5
: "${WINEPREFIX:?a Wine prefix of the tests}"
wine=${PALIMBO_WINE:-/usr/lib/wine/wine64}

source "$(dirname "$0")/simulated_module.sh"

# The log with time stamps, carriage returns and the names of the port and the file taken out.
normalise() {
  sed -e 's/\r$//' -e 's/^[0-9][0-9]:[0-9][0-9]:[0-9][0-9]\t//' -e "s|^$2 opened\.|PORT opened.|" \
    -e 's/^Firmware .* read once for the whole run:/Firmware read once for the whole run:/' "$1"
}

"$linux_cli" hex2bin "$hex" "$work/image.bin"

start_module windows
ln -sfn "$pts" "$WINEPREFIX/dosdevices/${com,,}"
windows_path() { printf 'Z:%s' "$(realpath "$1")" | tr / '\\'; }
win_hex=$(windows_path "$hex")
# A record whose last line a crash cut short.
printf '{"torn":' >"$work/record.jsonl"
started=$(date +%s%N)
if ! timeout 180 "$wine" "$win_cli" flash --port "$com" --record "$(windows_path "$work/record.jsonl")" \
    "$win_hex" >"$work/windows.log" \
    2>"$work/windows.err"; then
  echo "Windows upload failed:" >&2
  cat "$work/windows.log" "$work/windows.err" >&2
  exit 1
fi
windows_ms=$((($(date +%s%N) - started) / 1000000))
check_flash windows
# The Windows build's line starts on a line of its own and names the file by its SHA-256.
if ! sed -n 2p "$work/record.jsonl" |
    grep -q "\"file_sha256\":\"$(sha256sum <"$hex" | cut -c1-64)\".*\"outcome\":\"verified\""; then
  echo "the record of the Windows build is wrong:" >&2
  cat "$work/record.jsonl" >&2
  exit 1
fi

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

# A module that holds the image already: verify says so, and --skip-same only reboots it.
start_module current --flash-from "$hex"
ln -sfn "$pts" "$WINEPREFIX/dosdevices/${com,,}"
for run in "verify:MODULE HOLDS THIS IMAGE." "flash --skip-same:NOT WRITTEN."; do
  # shellcheck disable=SC2086  # the command and its option are two words
  if ! timeout 120 "$wine" "$win_cli" ${run%%:*} --port "$com" "$win_hex" >"$work/check.log" 2>&1 ||
    ! grep -q "${run#*:}" "$work/check.log"; then
    echo "Windows ${run%%:*} failed:" >&2
    cat "$work/check.log" >&2
    exit 1
  fi
done
# The same check as a station of a profile, whose paths are taken from the profile's folder.
cp "$hex" "$work/release.hex"
printf '{"file": "release.hex", "port": "%s", "count": 1, "record": "check.jsonl"}' "$com" \
  >"$work/check.json"
if ! timeout 120 "$wine" "$win_cli" verify --profile "$(windows_path "$work/check.json")" \
    >"$work/profile.log" 2>&1 || ! grep -q "station: 1 modules, 1 matching" "$work/profile.log" ||
    ! grep -q '"outcome":"matches"' "$work/check.jsonl"; then
  echo "Windows verify --profile failed:" >&2
  cat "$work/profile.log" >&2
  exit 1
fi
check_flash current
echo "$protocol upload: Windows build under Wine $windows_ms ms, Linux build $linux_ms ms"
