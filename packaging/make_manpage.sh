#!/usr/bin/env bash
# Writes the manual page of palimbo-cli from its own --help texts, so that the two never differ.
# Usage: make_manpage.sh PALIMBO_CLI VERSION OUT.1
set -euo pipefail
cli=$1 version=$2 out=$3

# Help text as it stands, safe from roff: backslashes escaped, no line taken for a request.
verbatim() {
  echo '.nf'
  sed -e 's/\\/\\e/g' -e "s/^\([.']\)/\\\\\&\1/"
  echo '.fi'
}

commands=$("$cli" --help | sed -n '/^Commands:/,/^$/s/^  \([a-z0-9][a-z0-9-]*\) .*/\1/p')
{
  echo ".TH PALIMBO-CLI 1 \"\" \"palimbo $version\" \"User Commands\""
  echo '.SH NAME'
  echo 'palimbo-cli \- write firmware into a module through its serial bootloader'
  echo '.SH SYNOPSIS'
  echo '.B palimbo-cli'
  echo '\fICOMMAND\fR [\fIOPTIONS\fR] [\fIARGS\fR]'
  echo '.SH DESCRIPTION'
  "$cli" --help | verbatim
  echo '.SH COMMANDS'
  for command in $commands; do
    echo ".SS $command"
    "$cli" "$command" --help | verbatim
  done
  echo '.SH SEE ALSO'
  echo '.BR palimbo (1)'
  echo 'is the window for the same upload.'
} >"$out"
