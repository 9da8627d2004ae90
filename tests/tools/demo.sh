#!/usr/bin/env bash
# Drives the demo: the frame count asked for, a report whose average lies
# between its shortest and longest frame, --data, a copy of the program far
# from any "Data" directory (all on the null renderer), and, where a Vulkan
# device exists, the rendering mode's PNG.
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

"$demo" --null 40 > out.txt
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
# The animated node: its walk's event printed once, the node moved off the origin.
[ "$(grep -c '^Animation event: "walk" reached 0.50 s' out.txt)" -eq 1 ]
grep -q '^Animated node at (.*) after 40 frames, 1 events, 1 state(s) playing' out.txt
! grep -q '^Animated node at (0.000, 0.000, 0.000)' out.txt
# The scene graph saved as ".node" in both forms and loaded back the same.
grep -q '^Scene saved as binary .node ([1-9][0-9]* bytes) and loaded back: same tree (4 nodes)$' out.txt
grep -q '^Scene saved as XML .node ([1-9][0-9]* bytes) and loaded back: same tree (4 nodes)$' out.txt

# Options after operands work too, and --data names the root.
cp -r "$source_data" "$work/MyData"
"$demo" 10 --null --data "$work/MyData" > out.txt
grep -q "^Data root: $work/MyData/$" out.txt
if "$demo" --data "$work/none" 10 > /dev/null 2> err.txt; then exit 1; fi
grep -q "does not exist" err.txt

# A copy far from any Data directory still finds the data it was built with.
mkdir -p far/away && cp "$demo" far/away/
far/away/"$(basename "$demo")" --null 10 | grep -q "Engine shut down cleanly"
# The rendering mode: a textured quad each frame, the last one written where
# --output says. The driver's own allocations made while the device opens
# are never freed and cannot be attributed once it is unloaded, so leak
# checking is off for this one run; the engine's side of the same path runs
# with it on in the Vulkan suites.
ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0" "$demo" 30 --output "$work/frame.png" > out.txt
if grep -q "^Renderer: Vulkan" out.txt; then
  grep -q "^Last frame written to $work/frame.png$" out.txt
  [ "$(head -c 8 "$work/frame.png" | od -An -tx1 | tr -d ' \n')" = "89504e470d0a1a0a" ]
  # On a display the frames go to a window as well (Xvfb stands in for one).
  if command -v Xvfb > /dev/null; then
    # Xvfb picks a free display itself and names it once it accepts
    # connections. Several servers starting at once (tests running beside
    # this one) can race for one display, so a display that does not open
    # gets a fresh server, up to three times.
    xvfb=
    trap 'kill $xvfb 2> /dev/null; rm -rf "$work"' EXIT
    for attempt in 1 2 3; do
      [ -z "$xvfb" ] || kill $xvfb 2> /dev/null || true
      rm -f "$work/display"
      Xvfb -displayfd 3 -screen 0 800x600x24 -nolisten tcp 3> "$work/display" > /dev/null 2>&1 &
      xvfb=$!
      # A loaded machine can take many seconds to start it.
      for _ in $(seq 600); do
        [ -s "$work/display" ] && break
        kill -0 $xvfb 2> /dev/null || break
        sleep 0.1
      done
      n="$(head -n 1 "$work/display" 2> /dev/null || true)"
      [ -n "$n" ] || continue
      DISPLAY=":$n" ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0" "$demo" 10 --output "$work/window.png" > out.txt
      grep -q "^Window: 640x360 on :$n$" out.txt && break
    done
    grep -q "^Window: 640x360 on :$n$" out.txt || { echo "no window after $attempt servers" >&2; cat out.txt >&2; exit 1; }
    grep -q "^Last frame written to $work/window.png$" out.txt || { cat out.txt >&2; exit 1; }
    DISPLAY=":$n" ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0" "$demo" 3 --offscreen > out.txt
    if grep -q "^Window:" out.txt; then exit 1; fi
  fi
else
  grep -q "^No Vulkan device: the frames run on the null renderer.$" out.txt
fi
echo "demo ok"
