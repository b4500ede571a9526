#!/usr/bin/env bash
# Cross-builds the library, palimbo-cli.exe and the tests for 64-bit Windows with MinGW-w64 and
# runs them under Wine in a throwaway prefix. The palimbo-cli of a Linux build serves the
# simulated modules that the Windows build flashes.
# Usage: scripts/test-windows.sh [LINUX_BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
linux_cli=$PWD/${1:-build}/src/cli/palimbo-cli
[[ -x $linux_cli ]] || { echo "no Linux build at $linux_cli: run scripts/setup.sh first" >&2; exit 2; }

scripts/install-packages.sh cmake ninja-build g++-mingw-w64-x86-64 googletest wine64 postgresql-15 \
  nlohmann-json3-dev libcli11-dev ser2net openssl
cmake -S . -B build-win -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPALIMBO_WINDOW=OFF -DPALIMBO_BENCH=OFF \
  -DPALIMBO_LINUX_CLI="$linux_cli" >&2
cmake --build build-win -j2 >&2

export WINEPREFIX WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
WINEPREFIX=$(mktemp -d)
export PALIMBO_WINE=/usr/lib/wine/wine64
trap '/usr/lib/wine/wineserver -k >/dev/null 2>&1 || true; rm -rf "$WINEPREFIX"' EXIT
# One server for all the test programs, instead of one started and stopped for each.
/usr/lib/wine/wineserver -p >/dev/null 2>&1
"$PALIMBO_WINE" wineboot -i >/dev/null 2>&1
ctest --test-dir build-win --output-on-failure -j2
