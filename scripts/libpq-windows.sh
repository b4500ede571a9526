#!/usr/bin/env bash
# Builds Debian's libpq (the version of the installed libpq-dev) as a static library for 64-bit
# Windows (MinGW-w64), with Debian's OpenSSL (the version of the installed libssl-dev, or the
# archive's current one of the same release when it no longer holds that) below it,
# both from Debian's own source packages, and keeps them in one cache outside the tree, as
# scripts/mbedtls-windows.sh does for Mbed TLS. A second run finds the cache at once.
# Prints the cache's folder, the prefix to give CMake, on its last line.
# Usage: scripts/libpq-windows.sh
# PALIMBO_QT_CACHE picks the cache's parent folder (default ~/.cache/palimbo).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-packages.sh gcc-mingw-w64-x86-64 binutils-mingw-w64-x86-64 libpq-dev libssl-dev \
  dpkg-dev make perl >&2

host=x86_64-w64-mingw32
# The C compiler of cmake/mingw-w64-x86_64.cmake, so that both sides share one runtime.
cc=$host-gcc-posix
source_of() { dpkg-query -W -f='${source:Package} ${source:Version}\n' "$1"; }
read -r ssl_package ssl_version < <(source_of libssl-dev)
read -r pq_package pq_version < <(source_of libpq-dev)

# Only libcrypto and libssl: "build_libs" and "install_dev" build and install no programs,
# tests or manuals.
ssl_options=(mingw64 "--cross-compile-prefix=$host-" CC=gcc-posix no-shared no-tests)
# The folders OpenSSL reads its configuration and loadable modules from at run time: the ones of
# OpenSSL's own Windows builds, which only administrators may write to, not the build machine's
# cache, which Windows would look for on the current drive.
ssl_folders=("OPENSSLDIR=C:/Program Files/Common Files/SSL"
  "ENGINESDIR=C:/Program Files/OpenSSL/lib/engines-3"
  "MODULESDIR=C:/Program Files/OpenSSL/lib/ossl-modules")
pq_options=("--host=$host" "CC=$cc" --with-ssl=openssl --without-readline --without-zlib
  --without-icu --without-gssapi)

source scripts/windows-cache.sh
cache_open "libpq-${pq_version%%-*}" < <(printf '%s\n' "$ssl_version" "${ssl_options[@]}" \
  "${ssl_folders[@]}" "$pq_version" "${pq_options[@]}")
ssl_source=$(scripts/debian-source.sh "$ssl_package" "$ssl_version" "$work/openssl" | tail -n1)
pq_source=$(scripts/debian-source.sh "$pq_package" "$pq_version" "$work/postgresql" | tail -n1)
jobs=$(nproc)

echo "Building $ssl_package $ssl_version for Windows into $prefix" >&2
(cd "$ssl_source" &&
  ./Configure "${ssl_options[@]}" --prefix="$prefix" --libdir=lib &&
  make -j"$jobs" build_libs "${ssl_folders[@]}" &&
  make install_dev "${ssl_folders[@]}") >&2

echo "Building libpq of $pq_package $pq_version for Windows into $prefix" >&2
cd "$pq_source"
# The static OpenSSL needs these libraries of Windows in configure's tests of linking.
./configure "${pq_options[@]}" --prefix="$prefix" \
  CPPFLAGS="-I$prefix/include" LDFLAGS="-L$prefix/lib" LIBS="-lws2_32 -lgdi32 -lcrypt32" >&2
# Only what libpq needs: the generated headers, the front end's share of src/port and
# src/common, and libpq's objects.
make -C src/backend generated-headers >&2
make -C src/port -j"$jobs" libpgport_shlib.a >&2
make -C src/common -j"$jobs" libpgcommon_shlib.a >&2
# On Windows PostgreSQL's libpq.a is the import library of libpq.dll: archive libpq's objects, as
# its Makefile lists them, ourselves. The version resource stays out: a program has its own.
cat >"$work/libpq-static.mk" <<'MAKE'
libpq-static.a: $(filter-out $(WIN32RES),$(OBJS))
	rm -f $@
	$(LINK.static) $@ $^
MAKE
make -C src/interfaces/libpq -f Makefile -f "$work/libpq-static.mk" -j"$jobs" libpq-static.a >&2

# For Windows libpq brings pthread functions of its own, with another mutex than that of
# winpthreads, which our toolchain links for std::thread and std::mutex: a program with both
# fails to link on the same names. libpq's copies get names of their own.
nm=$host-nm
$nm -g --defined-only src/interfaces/libpq/pthread-win32.o | awk '$3 ~ /^pthread_/ {
  print $3, "pq_" $3 }' >"$work/pthread-names"
$host-objcopy --redefine-syms="$work/pthread-names" src/interfaces/libpq/libpq-static.a

install -d "$prefix/include" "$prefix/lib"
install -m644 src/interfaces/libpq/libpq-static.a "$prefix/lib/libpq.a"
install -m644 src/common/libpgcommon_shlib.a src/port/libpgport_shlib.a "$prefix/lib"
install -m644 src/interfaces/libpq/libpq-fe.h src/include/postgres_ext.h \
  src/include/pg_config_ext.h "$prefix/include"

clashes=$($nm -g --defined-only "$prefix"/lib/lib{pq,pgcommon_shlib,pgport_shlib}.a |
  awk '$3 ~ /^pthread_/ {print $3}')
if [[ -n $clashes ]]; then
  echo "libpq for Windows still defines pthread functions: $clashes" >&2
  exit 1
fi
cache_done "libpq and OpenSSL"
