#!/usr/bin/env bash
# Builds a static Qt for 64-bit Windows (MinGW-w64) from Debian's own source package of the Qt
# installed here, and keeps it in a cache outside the tree. A second run finds the cache at once.
# Prints the cache's folder, the prefix to give CMake, on its last line.
# Usage: scripts/qt-windows.sh
# PALIMBO_QT_CACHE picks the cache's parent folder (default ~/.cache/palimbo).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

scripts/install-packages.sh cmake ninja-build g++-mingw-w64-x86-64 qt6-base-dev \
  qt6-base-dev-tools dpkg-dev perl python3

# Host and target must be the very same Qt: take the version of the installed qt6-base-dev.
version=$(dpkg-query -W -f='${Version}' qt6-base-dev)

options=(
  -DCMAKE_BUILD_TYPE=Release
  -DBUILD_SHARED_LIBS=OFF
  -DQT_BUILD_EXAMPLES=OFF
  -DQT_BUILD_TESTS=OFF
  -DFEATURE_pkg_config=OFF
  -DFEATURE_system_zlib=OFF
  -DFEATURE_system_pcre2=OFF
  -DFEATURE_system_harfbuzz=OFF
  -DFEATURE_system_freetype=OFF
  -DFEATURE_system_png=OFF
  -DFEATURE_system_jpeg=OFF
  -DFEATURE_system_doubleconversion=OFF
  -DFEATURE_system_md4c=OFF
  -DFEATURE_sql=OFF
  -DFEATURE_network=OFF
  -DFEATURE_dbus=OFF
  -DFEATURE_vulkan=OFF
  -DFEATURE_printsupport=OFF
  -DFEATURE_testlib=OFF
  -DFEATURE_concurrent=OFF
  -DFEATURE_xml=OFF
  -DFEATURE_jpeg=OFF
  # Debian's source lacks the header of the tablet interface.
  -DFEATURE_tabletevent=OFF
)
# OpenGL and Direct2D stay on: the Windows platform plugin does not build or link without them.

key=$( (printf '%s\n' "$version" "${options[@]}"; cat cmake/mingw-w64-x86_64.cmake) |
  sha256sum | cut -c1-12)
cache=${PALIMBO_QT_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/palimbo}
prefix=$cache/qt-${version%%+*}-mingw-$key
if [[ -f $prefix/.complete ]]; then
  echo "$prefix"
  exit 0
fi

started=$SECONDS
work=$cache/work-$key
rm -rf "$work" "$prefix"
trap 'rm -rf "$work"' EXIT
source_dir=$(scripts/debian-source.sh qt6-base "$version" "$work" | tail -n1)

echo "Building Qt $version for Windows into $prefix (about 25 minutes on two cores)" >&2
cmake -S "$source_dir" -B "$work/build" -G Ninja \
  -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" \
  -DCMAKE_CROSSCOMPILING_EMULATOR= \
  -DQT_HOST_PATH=/usr -DQT_HOST_PATH_CMAKE_DIR=/usr/lib/x86_64-linux-gnu/cmake \
  -DCMAKE_INSTALL_PREFIX="$prefix" "${options[@]}" >&2
cmake --build "$work/build" -j"$(nproc)" >&2
cmake --install "$work/build" >&2
touch "$prefix/.complete"
echo "Qt for Windows built in $((SECONDS - started)) s: $(du -sh "$prefix" | cut -f1)" >&2
echo "$prefix"
