#!/usr/bin/env bash
# Builds Debian's Mbed TLS (the version of the installed libmbedtls-dev) as static libraries for
# 64-bit Windows (MinGW-w64) from Debian's own source package, and keeps them in a cache outside
# the tree, as scripts/qt-windows.sh does for Qt. A second run finds the cache at once.
# Prints the cache's folder, the prefix to give CMake, on its last line.
# Usage: scripts/mbedtls-windows.sh
# PALIMBO_QT_CACHE picks the cache's parent folder (default ~/.cache/palimbo).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-packages.sh cmake ninja-build gcc-mingw-w64-x86-64 libmbedtls-dev dpkg-dev >&2

version=$(dpkg-query -W -f='${Version}' libmbedtls-dev)
options=(
  -DCMAKE_BUILD_TYPE=Release
  -DENABLE_PROGRAMS=OFF
  -DENABLE_TESTING=OFF
  -DUSE_SHARED_MBEDTLS_LIBRARY=OFF
  -DUSE_STATIC_MBEDTLS_LIBRARY=ON
  -DMBEDTLS_FATAL_WARNINGS=OFF
  -DINSTALL_MBEDTLS_HEADERS=ON
)
exec scripts/windows-library.sh "mbedtls-${version%%-*}" mbedtls "$version" "${options[@]}"
