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
grep -q "'missing.bin' does not exist" err.txt
head -c 30 "$corpus/serialized-bin/object" > cut.bin
if "$tool" to-xml cut.bin out.xml 2> err.txt; then exit 1; fi
grep -q "damaged" err.txt
if "$tool" to-xml "$corpus/serialized-bin/values" out.xml 2> err.txt; then exit 1; fi
grep -q "cannot load the object graph" err.txt

# The binary view decodes what a section's bytes allow, past the 24 bytes
# its hex shows: numbers and whole strings.
"$tool" "$corpus/serialized-bin/values" > tree.txt
grep -q "^  OBJ  (57 bytes)  4c 41 56 00 07 00 00 00 5a 53 52 50 02 00 00 00 45 4d 41 4e 0d 00 00 00 ...$" tree.txt
grep -q '^      = VAL 7, PRSZ 2, NAME "name & <text>", SKT ...$' tree.txt
grep -q "^          = CLS 1.25$" tree.txt
"$tool" "$corpus/serialized-bin/object" > tree.txt
grep -q '^      = OBID 1, CLS "NamedObject", PRSZ 1$' tree.txt
grep -q '^        = NAME "Name", VAL "seed object"$' tree.txt
# A long string shows its first 64 characters.
long="$(printf 'x%.0s' $(seq 100))"
sed "s/seed object/$long/" object.xml > long.xml
"$tool" to-bin long.xml - | "$tool" - | grep -q "^        = NAME \"Name\", VAL \"$(printf 'x%.0s' $(seq 64))\"...$"

# A conversion can go to standard output.
"$tool" to-xml "$corpus/serialized-bin/object" - > piped.xml
cmp piped.xml object.xml
"$tool" to-bin object.xml - | "$tool" - | grep -q 'CLS "NamedObject", PRSZ 1$'

# An XML error gives its line; a class this build lacks is named.
printf '<XML />\n<OBJ VAL="7">\n  <PROP VAL=1/>\n</OBJ>\n' > bad.xml
if "$tool" bad.xml 2> err.txt; then exit 1; fi
grep -q "'bad.xml' is damaged: XML error on line 3: " err.txt
sed 's/NamedObject/NoSuchThing/' object.xml > unknown.xml
if "$tool" to-bin unknown.xml out.bin 2> err.txt; then exit 1; fi
grep -q "no class 'NoSuchThing' is known to this build" err.txt
sed 's/NamedObject/NamedObjecX/' "$corpus/serialized-bin/object" > unknown.bin
if "$tool" to-xml unknown.bin - > /dev/null 2> err.txt; then exit 1; fi
grep -q "no class 'NamedObjecX' is known to this build" err.txt

# The shared command line.
set +e
"$tool" 2> err.txt; [ $? -eq 2 ] || exit 1
"$tool" to-xml only-one 2> err.txt; [ $? -eq 2 ] || exit 1
grep -q "to-xml needs IN and OUT" err.txt
"$tool" -q file 2> err.txt; [ $? -eq 2 ] || exit 1
grep -q "unknown option '-q'" err.txt
set -e
"$tool" --help | grep -q "^usage: kovex-dump"
"$tool" "$corpus/serialized-bin/values" --data "$corpus" | grep -q "CLS 1.25"
echo "dump tool ok"
