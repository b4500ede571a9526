#!/usr/bin/env bash
# A production station as an operator runs it: palimbo.exe under Wine, opened with a profile as
# the operator's shortcut opens it, flashes module after module of the Linux simulate from one
# click on START, with nothing typed. Each module must have confirmed the image's checksum in
# its line of the record.
# Usage: window_station_e2e.sh WINDOWS_EXE LINUX_CLI HEX_FILE COMn [SHOT.png]
# Needs DISPLAY and WINEPREFIX. With SHOT.png, or PALIMBO_STATION_SHOT, the window is captured
# after the station.
set -euo pipefail
win_exe=$1 linux_cli=$2 hex=$3 com=$4 shot=${5:-${PALIMBO_STATION_SHOT:-}}
protocol=direct
: "${WINEPREFIX:?a Wine prefix of the tests}" "${DISPLAY:?an X display}"
here=$(dirname "$0")
start_x=168 start_y=132  # cmdStart, in the place it has without a profile too
modules=3

source "$here/simulated_module.sh"
"$linux_cli" hex2bin "$hex" "$work/image.bin"
start_module station --replace-after-ms 1500
ln -sfn "$pts" "$WINEPREFIX/dosdevices/${com,,}"

# The line's folder on the station's drive C: the release, the profile and the record.
line=$WINEPREFIX/drive_c/Line3
mkdir -p "$line"
cp "$hex" "$line/firmware.hex"
sha=$(sha256sum "$hex" | cut -d' ' -f1)
printf '{"file": "firmware.hex", "port": "%s", "record": "shift.jsonl", "count": %d,\n "expect-sha256": "%s"}\n' \
  "$com" "$modules" "$sha" >"$line/station.json"
profile='C:\Line3\station.json'
setsid bash "$here/wine_guard.sh" 300 1500 "$win_exe" --profile "$profile" >"$work/window.out" 2>&1 &
window=$!
pids+=("$window")
wid=$(wait_window "$window") ||
  { echo "palimbo.exe showed no window: $(cat "$work/window.out")" >&2; exit 1; }
xdotool mousemove --window "$wid" $start_x $start_y click 1
record=$line/shift.jsonl
for _ in $(seq 600); do
  [[ -f $record && $(wc -l <"$record") -ge $modules ]] && break
  sleep 0.2
done
sleep 2  # the station's summary after its last line
[[ -z $shot ]] || import -window "$wid" "$shot"
close_window "$wid" "$window"

lines=$(grep -c '"outcome":"verified"' "$record" || true)
if [[ $lines != "$modules" ]]; then
  echo "the record holds $lines verified modules of $modules:" >&2
  cat "$record" >&2
  exit 1
fi
grep -q "\"file_sha256\":\"$sha\"" "$record"
echo "palimbo.exe --profile flashed $modules modules from one START, each recorded"
