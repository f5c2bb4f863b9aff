#!/bin/sh
# Compares the dynamic symbols that the shared library defines with the names
# that the headers declare as ORV_API.  Both directions must match exactly.
set -eu
lib=$1
incdir=$2
here=$(dirname "$0")
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
"$here/../cmake/exported_names.sh" "$incdir" > "$tmp/declared"
nm -D --defined-only "$lib" | awk '{print $3}' | sed 's/@.*//' \
  | grep -v -E '^(_init|_fini|_edata|_end|__bss_start|ORVLIB_6)$' | sort -u > "$tmp/exported"
status=0
extra=$(comm -13 "$tmp/declared" "$tmp/exported")
missing=$(comm -23 "$tmp/declared" "$tmp/exported")
if [ -n "$extra" ]; then echo "exported but not declared:"; echo "$extra"; status=1; fi
if [ -n "$missing" ]; then echo "declared but not exported:"; echo "$missing"; status=1; fi
[ $status -eq 0 ] && echo "exports match: $(wc -l < "$tmp/exported") symbols"
exit $status
