#!/usr/bin/env bash
# Builds a library for 64-bit Windows (MinGW-w64) from Debian's own source package with CMake,
# installs it into a cache outside the tree, keyed by its version, its options and our toolchain
# file, and prints that folder on its last line. A second run finds the cache at once.
# Usage: scripts/windows-library.sh NAME PACKAGE VERSION KEYED_OPTION... [-- CMAKE_ARG...]
# Only the keyed options make the key; the arguments behind "--" do not.
# PALIMBO_QT_CACHE picks the cache's parent folder (default ~/.cache/palimbo).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
name=$1 package=$2 version=$3
shift 3
options=() extra=()
while (($#)) && [[ $1 != -- ]]; do options+=("$1"); shift; done
(($#)) && shift && extra=("$@")

source scripts/windows-cache.sh
cache_open "$name" < <(printf '%s\n' "$version" "${options[@]}")
source_dir=$(scripts/debian-source.sh "$package" "$version" "$work" | tail -n1)

echo "Building $package $version for Windows into $prefix" >&2
cmake -S "$source_dir" -B "$work/build" -G Ninja \
  -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" \
  -DCMAKE_CROSSCOMPILING_EMULATOR= \
  -DCMAKE_INSTALL_PREFIX="$prefix" "${options[@]}" "${extra[@]}" >&2
cmake --build "$work/build" -j"$(nproc)" >&2
cmake --install "$work/build" >&2
cache_done "$package"
