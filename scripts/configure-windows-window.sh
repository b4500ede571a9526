#!/usr/bin/env bash
# Configures a Windows build with the window: Qt's toolchain file for the static Qt at QT_PREFIX,
# chained to our MinGW-w64 toolchain file.
# Usage: scripts/configure-windows-window.sh QT_PREFIX BUILD_DIR [CMAKE_ARG...]
set -euo pipefail
cd "$(dirname "$0")/.."
qt=$1 build=$2
shift 2
cmake -S . -B "$build" -G Ninja \
  -DCMAKE_TOOLCHAIN_FILE="$qt/lib/cmake/Qt6/qt.toolchain.cmake" \
  -DQT_CHAINLOAD_TOOLCHAIN_FILE="$PWD/cmake/mingw-w64-x86_64.cmake" \
  -DPALIMBO_WINDOW=ON -DPALIMBO_BENCH=OFF "$@"
