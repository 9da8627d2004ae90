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
cp game.kpk before.kpk
if "$tool" delete game.kpk no/such/member 2> err.txt; then exit 1; fi
grep -q "no member 'no/such/member' in 'game.kpk'; nothing deleted" err.txt
cmp game.kpk before.kpk
if "$tool" rename game.kpk renamed.txt ../escape 2> err.txt; then exit 1; fi
if "$tool" create x.kpk missing-dir 2> err.txt; then exit 1; fi
if "$tool" frobnicate game.kpk 2> /dev/null; then exit 1; fi
"$tool" list game.kpk > /dev/null

# The command line: help on stdout with exit 0, version, usage errors exit 2,
# options before or after operands.
"$tool" --help > help.txt
grep -q "^usage: kovex-pack create" help.txt
grep -q "Exit status: 0 success, 1 failure" help.txt
"$tool" --version | grep -q "^kovex-pack (KovexEngine) [0-9]"
set +e
"$tool" frobnicate game.kpk 2> err.txt; [ $? -eq 2 ] || exit 1
grep -q "unknown command 'frobnicate'" err.txt
"$tool" list --bogus game.kpk 2> err.txt; [ $? -eq 2 ] || exit 1
grep -q "unknown option '--bogus'" err.txt
"$tool" list 2> /dev/null; [ $? -eq 2 ] || exit 1
set -e
"$tool" -z 0 create plain.kpk more > /dev/null

# Data that deflate cannot shrink is stored raw even at level 9.
"$tool" create -z 9 rnd.kpk src > /dev/null
"$tool" list rnd.kpk | awk '$4 == "random.bin" && $2 != $1 { exit 1 }'

# An existing package is replaced only when asked; a missing directory is
# not made.
if "$tool" create rnd.kpk src 2> err.txt; then exit 1; fi
grep -q "exists; use -f to replace it" err.txt
"$tool" create rnd.kpk src -f > /dev/null
if "$tool" create no/such/dir/x.kpk src 2> err.txt; then exit 1; fi
grep -q "the directory 'no/such/dir' does not exist" err.txt
[ ! -e no ]

# add counts what it adds and what it replaces; a package is never added to
# itself.
"$tool" add plain.kpk more | grep -q "^0 members added, 1 replaced$"
mkdir selfdir && printf 'one' > selfdir/one.txt
"$tool" create selfdir/self.kpk selfdir > /dev/null
printf 'two' > selfdir/two.txt
"$tool" add selfdir/self.kpk selfdir > out.txt 2> err.txt
grep -q "^1 members added, 1 replaced$" out.txt
grep -q "leaving out 'selfdir/self.kpk': it is the package being written" err.txt
! "$tool" list selfdir/self.kpk | grep -q "self.kpk$"

# Links: a file link is stored as its file, a directory link (here a loop)
# is not followed, a broken link is skipped; each is reported.
mkdir -p linked/sub && printf 'target' > linked/sub/real.txt
ln -s real.txt linked/sub/alias.txt
ln -s .. linked/sub/up
ln -s nowhere linked/broken
"$tool" create linked.kpk linked > /dev/null 2> err.txt
grep -q "not following 'linked/sub/up': a symbolic link to a directory" err.txt
grep -q "skipping 'linked/broken': a broken symbolic link" err.txt
"$tool" list linked.kpk | grep -q "2 members"
"$tool" extract linked.kpk linked-out sub/alias.txt > /dev/null
[ "$(cat linked-out/sub/alias.txt)" = "target" ]

# delete says what a rebuild would reclaim.
"$tool" delete rnd.kpk random.bin | grep -q "would reclaim 195.3 KiB"

# Each reason a file cannot be opened has its own message.
if "$tool" list missing.kpk 2> err.txt; then exit 1; fi
grep -q "'missing.kpk' does not exist" err.txt
if "$tool" list src 2> err.txt; then exit 1; fi
grep -q "is a directory" err.txt
head -c -10 game.kpk > cut.kpk
if "$tool" list cut.kpk 2> err.txt; then exit 1; fi
grep -q "'cut.kpk' is truncated" err.txt
# One member named "../x": the data, a 68-byte record, the 64-byte header.
{ printf 'x'; head -c 8 /dev/zero; printf '\x00\x00\x00\x00\x00\x00\x00\x00\x01\x00\x00\x00\x00\x00\x00\x00'
  head -c 40 /dev/zero; printf '\x04\x00\x00\x00../x'
  printf '\xe8\x03\x00\x00KVPF\x01\x00\x00\x00\x00\x00\x00\x00\x48\x00\x00\x00'; head -c 44 /dev/zero; } > unsafe.kpk
if "$tool" extract unsafe.kpk out4 2> err.txt; then exit 1; fi
grep -q "holds an unsafe member name '../x'" err.txt
[ ! -e x ]
if [ "$(id -u)" -ne 0 ]; then
  cp game.kpk locked.kpk && chmod 000 locked.kpk
  if "$tool" list locked.kpk 2> err.txt; then exit 1; fi
  grep -q "cannot be read: Permission denied" err.txt
fi

# Extraction failures give the system's reason or the decompressor's.
touch blocker
if "$tool" extract game.kpk blocker 2> err.txt; then exit 1; fi
grep -q "cannot extract .*: .*\(Not a directory\|File exists\)" err.txt
mkdir onedir && cp src/sub/text.txt onedir/
"$tool" create one.kpk onedir > /dev/null
printf 'garbage!garbage!' | dd of=one.kpk bs=1 seek=20 conv=notrunc 2> /dev/null
if "$tool" extract one.kpk out5 2> err.txt; then exit 1; fi
grep -q "cannot extract 'text.txt': zlib: " err.txt

# Progress: by bytes on a terminal, nothing otherwise.
mkdir big && head -c 3000000 /dev/urandom > big/blob.bin
"$tool" create big.kpk big > /dev/null 2> err.txt
[ ! -s err.txt ]
if command -v script > /dev/null; then
  script -qec "'$tool' create -f big.kpk big" /dev/null > tty.txt
  grep -q "create: *[0-9]*%  .* of 2.9 MiB" tty.txt
fi
echo "package tool: all steps passed"
