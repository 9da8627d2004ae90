#!/usr/bin/env bash
# Drives kovex-dump over files with arrays, maps and delegates: with the
# library of their classes loaded, binary to XML to binary and XML to XML
# give back the seeds byte for byte; without it the conversion is refused.
set -euo pipefail
tool="$1"
module="$2"
corpus="$3"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cd "$work"

"$tool" --load "$module" to-xml "$corpus/serialized-bin/containers" crate.xml
grep -q '<ARRY CNT="4">' crate.xml
grep -q '<MAP CNT="3">' crate.xml
grep -q '<DLGT FUNC="HitSelf" SELF="1"/>' crate.xml
cmp crate.xml "$corpus/serialized-xml/containers"
"$tool" --load "$module" to-bin crate.xml crate.bin
cmp crate.bin "$corpus/serialized-bin/containers"
"$tool" --load "$module" to-xml "$corpus/serialized-xml/containers" again.xml
cmp again.xml "$corpus/serialized-xml/containers"

if "$tool" to-xml "$corpus/serialized-bin/containers" out.xml 2> err.txt; then exit 1; fi
grep -q "cannot load the object graph" err.txt
if "$tool" --load "$work/missing.so" to-xml crate.bin out.xml 2> err.txt; then exit 1; fi
grep -q "cannot load '$work/missing.so'" err.txt
echo "container conversion ok"
