#!/usr/bin/env bash
# Builds Debian's Mbed TLS (the version of the installed libmbedtls-dev) as static libraries for
# 64-bit Windows (MinGW-w64) from Debian's own source package, and keeps them in a cache outside
# the tree, as scripts/qt-windows.sh does for Qt. A second run finds the cache at once.
# Prints the cache's folder, the prefix to give CMake, on its last line.
# Usage: scripts/mbedtls-windows.sh
# PALIMBO_QT_CACHE picks the cache's parent folder (default ~/.cache/palimbo).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

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
key=$( (printf '%s\n' "$version" "${options[@]}"; cat cmake/mingw-w64-x86_64.cmake) |
  sha256sum | cut -c1-12)
cache=${PALIMBO_QT_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/palimbo}
prefix=$cache/mbedtls-${version%%-*}-mingw-$key
if [[ -f $prefix/.complete ]]; then
  echo "$prefix"
  exit 0
fi

started=$SECONDS
work=$cache/work-mbedtls-$key
rm -rf "$work" "$prefix"
trap 'rm -rf "$work"' EXIT
source_dir=$(scripts/debian-source.sh mbedtls "$version" "$work" | tail -n1)

echo "Building Mbed TLS $version for Windows into $prefix" >&2
cmake -S "$source_dir" -B "$work/build" -G Ninja \
  -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" \
  -DCMAKE_CROSSCOMPILING_EMULATOR= \
  -DCMAKE_INSTALL_PREFIX="$prefix" "${options[@]}" >&2
cmake --build "$work/build" -j"$(nproc)" >&2
cmake --install "$work/build" >&2
touch "$prefix/.complete"
echo "Mbed TLS for Windows built in $((SECONDS - started)) s: $(du -sh "$prefix" | cut -f1)" >&2
echo "$prefix"
