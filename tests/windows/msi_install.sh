#!/usr/bin/env bash
# The installer package under Wine: an older package installs, the new one replaces it in place,
# the installed palimbo-cli.exe runs and tells the new version, and the uninstall leaves nothing
# behind: no programs, no Start-menu entry, no entry among the installed programs.
# Usage: msi_install.sh PACKAGING_BUILD_DIR VERSION
set -euo pipefail
dir=$1 version=$2
: "${WINEPREFIX:?a Wine prefix of the tests}"
wine=${PALIMBO_WINE:-/usr/lib/wine/wine64}
source=$(cd "$(dirname "$0")/../.." && pwd)
msi=$dir/palimbo-$version-windows-x86_64.msi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

programs="$WINEPREFIX/drive_c/Program Files/Palimbo"
# Wine puts a package's shortcut into the user's Start menu even when it is for all users.
menus=("$WINEPREFIX/drive_c/ProgramData/Microsoft/Windows/Start Menu/Programs/Palimbo.lnk"
  "$WINEPREFIX/drive_c/users/$(id -un)/AppData/Roaming/Microsoft/Windows/Start Menu/Programs/Palimbo.lnk")
menu_entries() { ls "${menus[@]}" 2>/dev/null | wc -l; }
fail() { echo "$*" >&2; exit 1; }
installed() {  # the display versions of the installed Palimbo packages, one a line
  "$wine" reg query 'HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall' /s 2>/dev/null |
    tr -d '\r' | awk '/^HKEY/ {name = ""} /DisplayName/ && /Palimbo/ {name = 1}
                      /DisplayVersion/ && name {print $NF}'
}
msiexec() { timeout 120 "$wine" msiexec "$1" "Z:${2//\//\\}" /qn; }

# The same package with an older version, as the last release would have been.
(cd "$dir/msi-files" &&
  wixl --arch x64 -D Version=0.9.0 -o "$work/older.msi" "$source/packaging/windows/palimbo.wxs")

msiexec /i "$work/older.msi"
[[ $(installed) == 0.9.0 ]] || fail "the older package did not install: '$(installed)'"

msiexec /i "$msi"
[[ $(installed) == "$version" ]] || fail "not upgraded in place, installed: '$(installed)'"
for file in palimbo.exe palimbo-cli.exe README.txt; do
  [[ -f $programs/$file ]] || fail "$file is not under Program Files"
done
(($(menu_entries) == 1)) || fail "no Start-menu entry"
told=$(timeout 60 "$wine" "C:\\Program Files\\Palimbo\\palimbo-cli.exe" --version | tr -d '\r')
[[ $told == *"$version"* ]] || fail "the installed palimbo-cli.exe says '$told'"

msiexec /x "$msi"
[[ -z $(installed) ]] || fail "still installed after the uninstall: '$(installed)'"
[[ ! -e $programs ]] && (($(menu_entries) == 0)) || fail "the uninstall left files behind"
echo "installed 0.9.0, upgraded to $version in place, ran, and uninstalled cleanly"
