#!/usr/bin/env bash
# Builds the window for 64-bit Windows (palimbo.exe, statically linked against the Qt that
# scripts/qt-windows.sh builds once and caches) with its tests, and runs them under Wine on a
# virtual X display: the window's own tests, an upload through palimbo.exe against the Linux
# window into simulated modules, and the installer package.
# Usage: scripts/test-windows-window.sh [LINUX_BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
linux_build=$PWD/${1:-build}
for program in src/cli/palimbo-cli src/console/palimbo; do
  [[ -x $linux_build/$program ]] ||
    { echo "no Linux build at $linux_build: run scripts/setup.sh first" >&2; exit 2; }
done

scripts/install-packages.sh cmake ninja-build g++-mingw-w64-x86-64 googletest wine64 \
  nlohmann-json3-dev libcli11-dev xvfb xdotool xclip imagemagick wixl
qt=$(scripts/qt-windows.sh | tail -n1)
scripts/configure-windows-window.sh "$qt" build-win-window -DCMAKE_BUILD_TYPE=Release \
  -DPALIMBO_LINUX_CLI="$linux_build/src/cli/palimbo-cli" \
  -DPALIMBO_LINUX_WINDOW="$linux_build/src/console/palimbo" >&2
cmake --build build-win-window -j2 --target palimbo_window console_test palimbo-cli palimbo_msi \
  fake_ftd2xx >&2

export WINEPREFIX WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
WINEPREFIX=$(mktemp -d)
export PALIMBO_WINE=/usr/lib/wine/wine64
xvfb=
cleanup() {
  /usr/lib/wine/wineserver -k >/dev/null 2>&1 || true
  [[ -z $xvfb ]] || kill "$xvfb" 2>/dev/null || true
  rm -rf "$WINEPREFIX" "$WINEPREFIX.display"
}
trap cleanup EXIT

# A display of our own, without a window manager: Wine then makes each X window exactly the
# window's client area, as the layout gives it.
display_file=$WINEPREFIX.display
Xvfb -displayfd 3 -screen 0 1024x768x24 -nolisten tcp 3>"$display_file" >/dev/null 2>&1 &
xvfb=$!
for _ in $(seq 100); do
  [[ -s $display_file ]] && break
  sleep 0.1
done
[[ -s $display_file ]] || { echo "Xvfb did not start" >&2; exit 1; }
export DISPLAY=:$(head -n1 "$display_file")

/usr/lib/wine/wineserver -p >/dev/null 2>&1
"$PALIMBO_WINE" wineboot -i >/dev/null 2>&1
# One at a time: the tests share the display and its clipboard.
ctest --test-dir build-win-window -L window --output-on-failure -j1
