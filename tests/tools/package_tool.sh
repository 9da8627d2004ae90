#!/usr/bin/env bash
# Drives kovex-pack through a whole life: create, list, extract, add, rename,
# delete, rebuild, and the failures it must report.
set -euo pipefail
tool="$1"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cd "$work"

mkdir -p src/sub out
head -c 200000 /dev/urandom > src/random.bin
awk 'BEGIN { for (i = 0; i < 5000; i++) print "compressible line of text" }' > src/sub/text.txt
printf 'tiny' > src/tiny.jpg
: > src/empty.dat

"$tool" create game.kpk src -z 9 -s '*.jpg' > /dev/null
"$tool" list game.kpk > listing.txt
grep -q "sub/text.txt" listing.txt
grep -q "4 members" listing.txt
# The text compresses; the jpg is stored raw.
awk '$4 == "sub/text.txt" && $2 >= $1 { exit 1 }' listing.txt
awk '$4 == "tiny.jpg" && $2 != $1 { exit 1 }' listing.txt

"$tool" extract game.kpk out > /dev/null
cmp src/random.bin out/random.bin
cmp src/sub/text.txt out/sub/text.txt
cmp src/empty.dat out/empty.dat

mkdir more && printf 'new member' > more/added.txt
"$tool" add game.kpk more > /dev/null
"$tool" rename game.kpk added.txt renamed.txt
"$tool" delete game.kpk tiny.jpg
"$tool" rebuild game.kpk > /dev/null
"$tool" list game.kpk > listing.txt
grep -q "renamed.txt" listing.txt
! grep -q "tiny.jpg" listing.txt
"$tool" extract game.kpk out2 renamed.txt > /dev/null
[ "$(cat out2/renamed.txt)" = "new member" ]

# Failures: a clear message and a non-zero status, and nothing damaged.
printf 'not a package at all' > bogus.kpk
if "$tool" list bogus.kpk 2> err.txt; then exit 1; fi
grep -q "not a package" err.txt
if "$tool" extract game.kpk out3 no/such/member 2> err.txt; then exit 1; fi
grep -q "no member" err.txt
if "$tool" rename game.kpk renamed.txt ../escape 2> err.txt; then exit 1; fi
if "$tool" create x.kpk missing-dir 2> err.txt; then exit 1; fi
if "$tool" frobnicate game.kpk 2> /dev/null; then exit 1; fi
"$tool" list game.kpk > /dev/null
echo "package tool: all steps passed"
