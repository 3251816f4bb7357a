#!/bin/sh
# Installs what is missing of the packages of the named groups; touches no network when all is there. Names that end in
# an architecture, such as libhwy-dev:arm64, are of that one.
# Usage: install_packages.sh GROUP...
set -eu
list=$(dirname "$0")/../debian-packages.txt
wanted=$(awk -v groups="$*" '
  BEGIN { count = split(groups, group, " ") }
  /^[^#]/ { for (i = 1; i <= count; ++i) if (index("," $2 ",", "," group[i] ",")) { print $1; next } }' "$list")
native=$(dpkg --print-architecture)
missing=
for package in $wanted; do
  dpkg-query -W -f '${db:Status-Status} ${Architecture}\n' "$package" 2>/dev/null |
    grep -Eqx "installed ($native|all|${package#*:})" || missing="$missing $package"
done
[ -n "$missing" ] || exit 0
echo "Installing:$missing"
root=
[ "$(id -u)" -eq 0 ] || root=sudo
for architecture in $(printf '%s\n' $missing | sed -n 's/.*://p' | sort -u); do
  $root dpkg --add-architecture "$architecture"
done
$root apt-get update -q
$root env DEBIAN_FRONTEND=noninteractive apt-get install -q -y --no-install-recommends $missing
