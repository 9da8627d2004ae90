#!/usr/bin/env bash
# Drives the demo: the frame count asked for, a report whose average lies
# between its shortest and longest frame, --data, and a copy of the program
# far from any "Data" directory.
set -euo pipefail
demo="$1"
source_data="$2"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cd "$work"

"$demo" --help > help.txt
grep -q "usage: .*--data DIR" help.txt
if "$demo" 1 2> /dev/null; then exit 1; fi
# A count is decimal: "abc" is not 2748 frames, nor "12x" twelve.
for bad in abc 12x -5 ""; do
  set +e; "$demo" "$bad" > /dev/null 2>&1; status=$?; set -e
  [ "$status" -eq 2 ] || { echo "count '$bad' gave $status"; exit 1; }
done

"$demo" 40 > out.txt
grep -q "^Frames: 40 run" out.txt
# "... (A us a frame; shortest S us, longest L us)": S <= A <= L.
awk '/^Frames:/ {
  for (i = 1; i <= NF; i++) {
    if ($(i+1) == "us" && $(i+2) == "a") avg = $i
    if ($i == "shortest") low = $(i+1)
    if ($i == "longest") high = $(i+1)
  }
  gsub(/[()]/, "", avg)
  if (!(low + 0 <= avg + 0 && avg + 0 <= high + 0)) { print "average outside its range: " $0; exit 1 }
}' out.txt

# Options after operands work too, and --data names the root.
cp -r "$source_data" "$work/MyData"
"$demo" 10 --data "$work/MyData" > out.txt
grep -q "^Data root: $work/MyData/$" out.txt
if "$demo" --data "$work/none" 10 > /dev/null 2> err.txt; then exit 1; fi
grep -q "does not exist" err.txt

# A copy far from any Data directory still finds the data it was built with.
mkdir -p far/away && cp "$demo" far/away/
far/away/"$(basename "$demo")" 10 | grep -q "Engine shut down cleanly"
echo "demo ok"
