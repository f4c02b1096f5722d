#!/usr/bin/env bash
# The main job end to end: installs what is missing, builds, then makes a new
# definitions database in out/ seeded with the example parameters, imports the
# two example targets, lists the targets, and exports both targets and the
# parameters back to XML next to it.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${KAVREL_BUILD_DIR:-$root/build}"
out="${KAVREL_OUT_DIR:-$root/out}"

KAVREL_BUILD_DIR="$build" "$root/scripts/build.sh"
kavrel="$build/bin/kavrel"

rm -rf "$out"
mkdir -p "$out"
db="$out/definitions.sqlite"

echo "== new database"
"$kavrel" init "$db" --parameters "$root/examples/parameters.xml"
"$kavrel" check "$db"

echo "== import the example targets"
for example in kline_target can_target; do
  "$kavrel" import "$db" "$root/examples/$example.xml"
done

echo "== targets (name, address, id, requests, data, devices, screens)"
"$kavrel" targets "$db" | tee "$out/targets.tsv"

echo "== export"
# One document per stored target, named after the target (characters other
# than letters, digits, dot, dash and underscore become "_").
while IFS=$'\t' read -r name _; do
  file="$out/$(printf '%s' "$name" | LC_ALL=C sed 's/[^A-Za-z0-9._-]/_/g').xml"
  "$kavrel" export "$db" "$name" -o "$file"
done <"$out/targets.tsv"
"$kavrel" export-parameters "$db" -o "$out/parameters.xml"

echo "== compare with the examples"
for example in kline_target can_target; do
  match=""
  for f in "$out"/*.xml; do
    if cmp -s "$f" "$root/examples/$example.xml"; then match="$f"; fi
  done
  if [ -n "$match" ]; then
    echo "examples/$example.xml: exported again byte for byte as ${match#"$root"/}"
  else
    echo "examples/$example.xml: the exported document differs" >&2
    exit 1
  fi
done

echo
echo "Results in ${out}:"
echo "  definitions.sqlite  the database (open it with: $kavrel targets $db)"
echo "  targets.tsv         the target list"
echo "  *.xml               the exported targets and parameters.xml"
