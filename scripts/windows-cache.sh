# Sourced by the scripts that build a library for Windows into the cache outside the tree.
# cache_open NAME, with the lines that key the build on standard input: the key is their
# SHA-256 together with our toolchain file. A complete build is printed and ends the script;
# otherwise `prefix` is emptied for the build, and `work`, a folder for it, goes at the end.
# cache_done WHAT marks the build complete and prints its folder on the last line.
# PALIMBO_QT_CACHE picks the cache's parent folder (default ~/.cache/palimbo).
cache_open() {
  local key
  key=$( (cat; cat cmake/mingw-w64-x86_64.cmake) | sha256sum | cut -c1-12)
  local cache=${PALIMBO_QT_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/palimbo}
  prefix=$cache/$1-mingw-$key
  if [[ -f $prefix/.complete ]]; then
    echo "$prefix"
    exit 0
  fi
  started=$SECONDS
  work=$cache/work-$key
  rm -rf "$work" "$prefix"
  trap 'rm -rf "$work"' EXIT
}

cache_done() {
  touch "$prefix/.complete"
  echo "$1 for Windows built in $((SECONDS - started)) s: $(du -sh "$prefix" | cut -f1)" >&2
  echo "$prefix"
}
