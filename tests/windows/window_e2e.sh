#!/usr/bin/env bash
# The window as an operator uses it: palimbo.exe under Wine and the Linux palimbo, each on the
# X display of the tests, flash a module served by the Linux simulate. palimbo.exe finds its
# port by itself, through the stand-in for the vendor's FTD2XX.DLL beside it, though its store
# names another. START is clicked with the mouse, the end is seen on the progress bar, and the
# status list is taken with the list's "Copy log". The module's flash must equal the image, and
# both windows must show the same lines apart from the time stamps and the port's name.
# Usage: window_e2e.sh WINDOWS_EXE FAKE_FTD2XX_DLL LINUX_WINDOW LINUX_CLI direct|ccb HEX_FILE COMn
#        [SHOT.png]
# Needs DISPLAY (an X server without a window manager) and WINEPREFIX. With SHOT.png, or
# PALIMBO_WINDOW_SHOT for the direct protocol, the Windows window is captured after its upload.
set -euo pipefail
win_exe=$1 dll=$2 linux_window=$3 linux_cli=$4 protocol=$5 hex=$6 com=$7 shot=${8:-}
[[ -n $shot || $protocol != direct ]] || shot=${PALIMBO_WINDOW_SHOT:-}
: "${WINEPREFIX:?a Wine prefix of the tests}" "${DISPLAY:?an X display}"
here=$(dirname "$0")

# The window's layout is fixed in twips, 15 to a pixel; these are points inside its controls.
start_x=168 start_y=132        # cmdStart
list_x=388 list_y=216          # lstStatus
bar=495x12+140+286             # the inside of pctProgress

source "$here/simulated_module.sh"

bar_blank() {  # 1 when the bar of window $1 is all white: no colour, no text
  import -window "$1" -crop $bar -colorspace gray -format '%[fx:minima]' info: 2>/dev/null
}

# Presses START in the window $1 and waits until the bar has shown the job and then stays blank:
# between stages the bar is blank for a moment only, after the job for good.
upload_through() {
  local wid=$1 name=$2 seen=0 blank started ended=0
  xdotool mousemove --window "$wid" $start_x $start_y click 1
  started=$(date +%s%N)
  for _ in $(seq 1200); do
    blank=$(bar_blank "$wid" || true)
    if [[ $blank != 1 && -n $blank ]]; then
      seen=1 ended=0
    elif ((seen && ended == 0)); then
      ended=$(date +%s%N)
    elif ((ended && $(date +%s%N) - ended > 3000000000)); then
      echo "$name upload: $(((ended - started) / 1000000)) ms" >&2
      return 0
    fi
    sleep 0.2
  done
  echo "$name: the upload did not end within 4 minutes" >&2
  return 1
}

# The status list through its menu's "Copy log", one line each, without stamps and port names.
# A loaded machine may open the menu late: then the click misses it, and the next try closes it.
copy_log() {
  local wid=$1 port=$2 text=
  for _ in 1 2 3 4 5; do
    xdotool mousemove --window "$wid" $list_x $list_y click 3
    sleep 1
    xdotool mousemove_relative 30 12 click 1  # the menu's first item
    sleep 0.5
    text=$(xclip -selection clipboard -o 2>/dev/null || true)
    [[ -n $text ]] && break
    xdotool key Escape
  done
  sed -e 's/\r$//' -e 's/^[^\t]*\t//' -e "s|^$port opened\.|PORT opened.|" <<<"$text"
}

"$linux_cli" hex2bin "$hex" "$work/image.bin"

# Windows: the store holds the file as the operator left it last time, and a port that the
# automatic mode replaces with the controller's within a second.
start_module windows
mkdir "$work/programs"
cp "$win_exe" "$work/programs/palimbo.exe"
cp "$dll" "$work/programs/FTD2XX.DLL"
export PALIMBO_FAKE_D2XX="KV PC-Kestrolar [A1]=${com#COM}"
ln -sfn "$pts" "$WINEPREFIX/dosdevices/${com,,}"
appdata="$WINEPREFIX/drive_c/users/$(id -un)/AppData/Roaming"
mkdir -p "$appdata"
win_hex="Z:$(printf '%s' "$(realpath "$hex")" | tr / '\\')"
printf '[Settings]\r\nPort=COM1\r\nFile=%s\r\n' "${win_hex//\\/\\\\}" >"$appdata/Palimbo v1.ini"
setsid bash "$here/wine_guard.sh" 300 1500 "$work/programs/palimbo.exe" >"$work/windows.out" 2>&1 &
window=$!
pids+=("$window")
wid=$(wait_window "$window") ||
  { echo "palimbo.exe showed no window: $(cat "$work/windows.out")" >&2; exit 1; }
sleep 2  # a tick of the automatic mode
upload_through "$wid" Windows
[[ -z $shot ]] || import -window "$wid" "$shot"
copy_log "$wid" "$com" >"$work/windows.log"
# Closed as an operator closes it; the Linux window must not find this one still standing.
close_window "$wid" "$window"
check_flash windows

# Linux: the same with its own store and the pseudo-terminal's name.
unset PALIMBO_FAKE_D2XX
start_module linux
mkdir -p "$work/config"
printf '[Settings]\nPort=%s\nFile=%s\n' "$pts" "$(realpath "$hex")" >"$work/config/Palimbo v1.ini"
XDG_CONFIG_HOME=$work/config QT_QPA_PLATFORM=xcb setsid "$linux_window" >"$work/linux.out" 2>&1 &
window=$!
pids+=("$window")
wid=$(wait_window "$window") ||
  { echo "palimbo showed no window: $(cat "$work/linux.out")" >&2; exit 1; }
upload_through "$wid" Linux
copy_log "$wid" "$pts" >"$work/linux.log"
check_flash linux

if ! diff "$work/windows.log" "$work/linux.log"; then
  echo "the status lists of the two windows differ" >&2
  exit 1
fi
grep -qx "UPLOAD SUCCESSFULLY COMPLETED." "$work/windows.log"
echo "$protocol: both windows flashed the module and show the same $(wc -l <"$work/windows.log") lines"
