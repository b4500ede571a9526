#!/usr/bin/env bash
# Builds a static Qt for 64-bit Windows (MinGW-w64) from Debian's own source package of the Qt
# installed here, and keeps it in a cache outside the tree. A second run finds the cache at once.
# Prints the cache's folder, the prefix to give CMake, on its last line.
# Usage: scripts/qt-windows.sh
# PALIMBO_QT_CACHE picks the cache's parent folder (default ~/.cache/palimbo).
set -euo pipefail
cd "$(dirname "$0")/.."

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

# The host's Qt tools serve the cross build; where they are is no part of the key.
exec scripts/windows-library.sh "qt-${version%%+*}" qt6-base "$version" "${options[@]}" -- \
  -DQT_HOST_PATH=/usr -DQT_HOST_PATH_CMAKE_DIR=/usr/lib/x86_64-linux-gnu/cmake
