#!/usr/bin/env bash
# Drives kovex-dump: the tree of a binary file, the document of an XML file,
# binary to XML to binary byte for byte, and the failures it must report.
set -euo pipefail
tool="$1"
corpus="$2"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cd "$work"

"$tool" "$corpus/serialized-bin/values" > tree.txt
grep -q "^  OBJ  (57 bytes)" tree.txt
grep -q "^      DATA  (8 bytes)  53 4c 43 00 00 00 a0 3f$" tree.txt
"$tool" "$corpus/serialized-xml/values" | grep -q 'NAME="name &amp; &lt;text&gt;"'

"$tool" to-xml "$corpus/serialized-bin/object" object.xml
head -c 8 object.xml | grep -q "<XML />"
grep -q 'CLS="NamedObject"' object.xml
"$tool" to-bin object.xml object.bin
cmp object.bin "$corpus/serialized-bin/object"

# Failures: a missing file, a damaged one, an OBJ section that is not there.
if "$tool" missing.bin 2> err.txt; then exit 1; fi
grep -q "cannot read missing.bin" err.txt
head -c 30 "$corpus/serialized-bin/object" > cut.bin
if "$tool" to-xml cut.bin out.xml 2> err.txt; then exit 1; fi
grep -q "damaged" err.txt
if "$tool" to-xml "$corpus/serialized-bin/values" out.xml 2> err.txt; then exit 1; fi
grep -q "cannot load the object graph" err.txt
echo "dump tool ok"
