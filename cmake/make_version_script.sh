#!/bin/sh
# Writes a linker version script that exports exactly the ORV_API names.
set -eu
names=$("$(dirname "$0")/exported_names.sh" "$1")
{
  echo "ORVLIB_6 {"
  echo "  global:"
  for n in $names; do echo "    $n;"; done
  echo "  local: *;"
  echo "};"
} > "$2.tmp"
mv "$2.tmp" "$2"
