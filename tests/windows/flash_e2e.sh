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
