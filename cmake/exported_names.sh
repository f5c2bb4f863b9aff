#!/bin/sh
# Prints, one per line, the names that the headers in $1 declare with ORV_API.
# Declarations may span lines; each is read up to its ';'.
set -eu
cat "$1"/*.h | grep -v '^[[:space:]]*#' | tr '\n' ' ' | sed 's/;/;\n/g' | grep 'ORV_API' \
  | sed -E 's/.*ORV_API//; s/\(.*//; s/\[.*//; s/;.*//; s/[[:space:]]+$//; s/.*[^A-Za-z0-9_]//' \
  | sort -u
