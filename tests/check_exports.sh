#!/bin/sh
# Compares the dynamic symbols that the shared library defines with the names
# that the headers declare as ORV_API.  Both directions must match exactly.
set -eu
lib=$1
incdir=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
# Declarations may span lines; join each ORV_API declaration up to its ';'.
cat "$incdir"/*.h | tr '\n' ' ' | sed 's/;/;\n/g' | grep 'ORV_API' \
  | sed -E 's/.*ORV_API//; s/\(.*//; s/\[.*//; s/;.*//; s/[[:space:]]+$//; s/.*[^A-Za-z0-9_]//' \
  | sort -u > "$tmp/declared"
nm -D --defined-only "$lib" | awk '{print $3}' \
  | grep -v -E '^(_init|_fini|_edata|_end|__bss_start)$' | sort -u > "$tmp/exported"
status=0
if ! comm -13 "$tmp/declared" "$tmp/exported" | diff /dev/null - > "$tmp/extra"; then
  echo "exported but not declared:"; grep '^>' "$tmp/extra"; status=1
fi
if ! comm -23 "$tmp/declared" "$tmp/exported" | diff /dev/null - > "$tmp/missing"; then
  echo "declared but not exported:"; grep '^>' "$tmp/missing"; status=1
fi
[ $status -eq 0 ] && echo "exports match: $(wc -l < "$tmp/exported") symbols"
exit $status
