#!/usr/bin/env bash
# Builds the Debian package of a build, checks it with lintian, unpacks it into a throwaway root
# and runs what it installed: palimbo-cli --version and info on the example, the manual page and
# the bash completion.
# Usage: test_package.sh BUILD_DIR EXAMPLE_HEX VERSION
set -euo pipefail
build=$1 example=$2 version=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "package: $*" >&2; exit 1; }

(cd "$build" && cpack -G DEB -B "$work/out" >"$work/cpack.log" 2>&1) || { cat "$work/cpack.log" >&2; fail "cpack failed"; }
deb="$work/out/palimbo_${version}_amd64.deb"
[[ -f $deb ]] || fail "no $deb"

if command -v lintian >/dev/null; then
  lintian --allow-root "$deb" >"$work/lintian.log" 2>&1 || true
  if grep -q '^E:' "$work/lintian.log"; then cat "$work/lintian.log" >&2; fail "lintian reports errors"; fi
else
  fail "lintian is missing (scripts/setup.sh installs it)"
fi

root=$work/root
dpkg-deb -x "$deb" "$root"
cli=$root/usr/bin/palimbo-cli
[[ $("$cli" --version) == "palimbo-cli $version" ]] || fail "installed --version says '$("$cli" --version)'"
"$cli" info "$example" | grep -q "CRC" || fail "installed info on the example failed"

for file in usr/lib/udev/rules.d/70-palimbo-kestrolar.rules usr/share/man/man1/palimbo-cli.1.gz \
  usr/share/bash-completion/completions/palimbo-cli usr/share/doc/palimbo/copyright; do
  [[ -f $root/$file ]] || fail "$file not installed"
done
# Every option that flash --help names stands in the manual page as well.
for option in $("$cli" flash --help | grep -o -- '--[a-z][a-z0-9-]*' | sort -u); do
  zcat "$root/usr/share/man/man1/palimbo-cli.1.gz" | grep -q -- "\\\\-\\\\-${option#--}\|$option" ||
    fail "manual page lacks $option"
done

# The completion offers commands and each command's options, from the installed program.
complete_line() {
  bash -c 'source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$((${#COMP_WORDS[@]} - 1));
           _palimbo_cli; printf "%s\n" "${COMPREPLY[@]}"' _ \
    "$root/usr/share/bash-completion/completions/palimbo-cli" "$cli" "$@"
}
complete_line fl | grep -qx flash || fail "completion lacks the command flash"
complete_line flash --po | grep -qx -- --port || fail "completion lacks flash --port"
complete_line ver | grep -qx verify || fail "completion lacks the command verify"
echo "package $(basename "$deb"): lintian clean, installed programs run"
