#!/bin/sh
# Installs what is missing of the packages of the named groups; touches no network when all is there.
# Usage: install_packages.sh GROUP...
set -eu
list=$(dirname "$0")/../debian-packages.txt
wanted=$(awk -v groups="$*" '
  BEGIN { count = split(groups, group, " ") }
  /^[^#]/ { for (i = 1; i <= count; ++i) if (index("," $2 ",", "," group[i] ",")) { print $1; next } }' "$list")
missing=
for package in $wanted; do
  dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null | grep -q '^installed$' || missing="$missing $package"
done
[ -n "$missing" ] || exit 0
echo "Installing:$missing"
root=
[ "$(id -u)" -eq 0 ] || root=sudo
$root apt-get update -q
$root env DEBIAN_FRONTEND=noninteractive apt-get install -q -y --no-install-recommends $missing
