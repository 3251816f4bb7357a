#!/bin/sh
# The manual page, from the program's own help and that of every command, and, where lowdown is there, the sections of
# docs/program.md.
# Usage: make_man_page.sh PROGRAM DIRECTORY, which must be absolute and gets PROGRAM.1.gz
set -eu
text=$(cd "$(dirname "$0")/../.." && pwd)/docs/program.md
cd "$(dirname "$1")"
program=./$(basename "$1")
page=$2/$(basename "$1").1
trap 'rm -f "$page" "$page.command" "$page.commands"' EXIT
"$program" --help >"$page.commands"
commands=$(sed -n '/^Subcommands:/,/^$/s/^  \([a-z]*\) .*/\1/p' "$page.commands")
: >"$page.commands"
for command in $commands; do
  help2man --no-info --version-string=none "$program $command" >"$page.command"
  printf '[%s %s]\n' "$(basename "$1")" "$command" >>"$page.commands"
  sed -e '1,/^\.SH SYNOPSIS/d' -e 's/^\.SH DESCRIPTION/.PP/' -e 's/^\.SH OPTIONS/.SS "Options:"/' \
    "$page.command" >>"$page.commands"
done
help2man --no-info --name='keep and use the hashes of disk images' --include="$page.commands" "$program" >"$page"
if command -v lowdown >/dev/null; then
  # From its first section on; of links the text; in a font that terminals have.
  sed -e '1,/^## /{/^## /!d;}' -e 's/^##/#/' -e 's/\[\([^]]*\)\]([^)]*)/\1/g' "$text" | lowdown -tman |
    sed -e '/^\.SH$/{n;s/.*/\U&/;}' -e 's/\\fC/\\fB/g' >>"$page"
fi
gzip -9nf "$page"
