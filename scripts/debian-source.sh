#!/usr/bin/env bash
# Fetches and unpacks one of Debian's source packages through a deb-src list of our own, given
# to apt for this call only: the machine's apt configuration stays as it is. Prints the folder
# of the unpacked source on its last line.
# Usage: scripts/debian-source.sh PACKAGE VERSION WORK_DIR
set -euo pipefail
package=$1 version=$2 work=$3
mkdir -p "$work/src" "$work/apt/lists/partial" "$work/apt/parts"
codename=$(. /etc/os-release && echo "$VERSION_CODENAME")
mirror=${PALIMBO_DEBIAN_MIRROR:-http://deb.debian.org}
cat >"$work/apt/sources.list" <<LIST
deb-src $mirror/debian $codename main
deb-src $mirror/debian $codename-updates main
deb-src $mirror/debian-security $codename-security main
LIST
apt_options=(-o "Dir::Etc::SourceList=$work/apt/sources.list" -o "Dir::Etc::SourceParts=$work/apt/parts"
  -o "Dir::State::Lists=$work/apt/lists" -o "Dir::Cache::pkgcache=" -o "Dir::Cache::srcpkgcache=")
echo "Fetching the source of $package $version" >&2
apt-get -qq "${apt_options[@]}" update >&2
# The archive keeps the sources of the current versions only. An installed package older than
# those (a machine image made before a security update) gets the newest source of the same
# release that the archive gives, which only adds that update's fixes. The lists may name a
# version whose files a mirror does not hold yet: the next older one is tried.
fetch() { (cd "$work/src" && apt-get -qq "${apt_options[@]}" source "$package=$1" >&2); }
if ! fetch "$version"; then
  fetched=
  for other in $(apt-cache "${apt_options[@]}" showsrc "$package" | sed -n 's/^Version: //p' |
    sort -rV); do
    [[ $other == "$version" ]] && continue
    echo "Debian's archive gave no source of $package $version: trying $other" >&2
    if fetch "$other"; then fetched=$other && break; fi
  done
  [[ -n $fetched ]] || { echo "Debian's archive gave no source of $package" >&2; exit 1; }
fi
source_dir=$(find "$work/src" -mindepth 1 -maxdepth 1 -type d -name "$package-*" | head -n1)
[[ -d $source_dir ]] || { echo "the source of $package $version did not unpack" >&2; exit 1; }
echo "$source_dir"
