#!/usr/bin/env bash
# Drives kovex-image: info on files of every kind, conversions and their round
# trips, unpacking to PNG, and the failures it must report. Pixels are
# compared through the tool itself: an uncompressed B8G8R8A8 DDS is a
# 128-byte header and then the raw pixels.
set -euo pipefail
tool="$1"
fixtures="$2"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cd "$work"

# The BGRA bytes of a one-level image, one decimal a line.
pixels() {
  local raw
  raw="$(mktemp -p . pixels-XXXXXX.dds)"
  "$tool" convert "$1" "$raw" --format B8G8R8A8_UNORM
  tail -c +129 "$raw" | od -An -v -tu1 -w1 | tr -d " "
  rm -f "$raw"
}
# "largest mean" difference of two images' channels.
difference() {
  paste <(pixels "$1") <(pixels "$2") |
    awk '{ d = $1 - $2; if (d < 0) d = -d; if (d > m) m = d; s += d; n++ } END { if (n == 0) exit 1; printf "%d %.2f\n", m, s / n }'
}
le32() { printf "$(printf '\\x%02x\\x%02x\\x%02x\\x%02x' $(($1 & 255)) $(($1 >> 8 & 255)) $(($1 >> 16 & 255)) $(($1 >> 24 & 255)))"; }
zeros() { head -c "$1" /dev/zero; }

# info: every field, for each file; a file that fails does not stop the rest.
"$tool" info "$fixtures/pil_rgba8.png" "$fixtures/im_bc1_mips.dds" > info.txt
grep -q "^$fixtures/pil_rgba8.png$" info.txt
grep -q "^  loader     PNG$" info.txt
grep -q "^  width      37$" info.txt
grep -q "^  height     23$" info.txt
grep -q "^  depth      1$" info.txt
grep -q "^  format     [RB]8G8[RB]8A8_UNORM ([57])$" info.txt
grep -q "^  bytes      3404$" info.txt
grep -q "^  format     BC1_UNORM (22)$" info.txt
grep -q "^  mips       6$" info.txt
grep -q "^  dimension  2D$" info.txt
"$tool" info "$fixtures/cjpeg_progressive.jpg" | grep -q "^  loader     JPEG$"
"$tool" info - < "$fixtures/pil_rgb24.bmp" | grep -q "^  loader     BMP$"
"$tool" png - from-stdin < "$fixtures/im_bc3.dds" | grep -q "^from-stdin/stdin_s0_m0.png$"
"$tool" info "$fixtures/im_topdown_rle.tga" | grep -q "^  loader     TGA$" # no footer: by extension
set +e
"$tool" info missing.png "$fixtures/pil_pal8.bmp" > out.txt 2> err.txt; [ $? -eq 1 ] || exit 1
set -e
grep -q "'missing.png' does not exist" err.txt
grep -q "^  format     B5G6R5_UNORM (30)$" out.txt

# Every fixture other programs wrote is described, and unpacked to PNG;
# the one the engine refuses is named with the engine's own reason.
set +e
"$tool" info "$fixtures"/*.{png,jpg,tga,bmp,dds} > all.txt 2> err.txt; [ $? -eq 1 ] || exit 1
set -e
[ "$(grep -c "^  loader " all.txt)" -eq "$(($(ls "$fixtures"/*.{png,jpg,tga,bmp,dds} | wc -l) - 1))" ]
grep -q "'.*/im_pal24.tga' is not a TGA file the engine can decode.*: Unsupported TGA format. PAL=24" err.txt
[ "$(wc -l < err.txt)" -eq 1 ]
for file in "$fixtures"/*.{png,jpg,tga,bmp,dds}; do
  case "$file" in */im_pal24.tga) continue ;; esac
  "$tool" png "$file" unpacked-all > /dev/null
done
[ "$(ls unpacked-all | wc -l)" -ge 50 ]

# convert: PNG to BC1 DDS and back stays within BC1's error. The source is
# opaque: BC1 keeps one bit of alpha, so translucent pixels would turn black.
# On smooth 4x4 blocks the error is the 5-6-5 end points plus half a third of
# the block's range.
"$tool" convert "$fixtures/pil_rgb8.png" bc1.dds --bc1
"$tool" info bc1.dds > info.txt
grep -q "^  format     BC1_UNORM (22)$" info.txt
grep -q "^  mips       1$" info.txt
"$tool" convert bc1.dds bc1.png
read -r largest mean < <(difference "$fixtures/pil_rgb8.png" bc1.png)
[ "$largest" -le 24 ] || { echo "BC1 round trip: largest difference $largest"; exit 1; }
awk -v m="$mean" 'BEGIN { exit !(m <= 6) }' || { echo "BC1 round trip: mean difference $mean"; exit 1; }
# BC3 keeps alpha: a translucent source comes back close.
"$tool" convert "$fixtures/pil_rgba8.png" bc3.dds --format bc3_unorm
"$tool" convert bc3.dds bc3.png
read -r largest mean < <(difference "$fixtures/pil_rgba8.png" bc3.png)
[ "$largest" -le 24 ] || { echo "BC3 round trip: largest difference $largest"; exit 1; }

# Lossless paths give the very same file: PNG through DDS, BMP and TGA.
"$tool" convert "$fixtures/pil_rgba8.png" direct.png
"$tool" convert "$fixtures/pil_rgba8.png" plain.dds
"$tool" convert plain.dds via-dds.png
cmp direct.png via-dds.png
"$tool" convert "$fixtures/pil_rgba8.png" plain.bmp
"$tool" info plain.bmp | grep -q "^  format     B8G8R8A8_UNORM (7)$"
"$tool" convert plain.bmp via-bmp.png
[ "$(difference direct.png via-bmp.png)" = "0 0.00" ]
[ "$(difference "$fixtures/pil_rgba32.tga" direct.png)" = "0 0.00" ]
# Without --format a BMP or PNG gets 8-bit RGB(A), without alpha where the
# source has none.
"$tool" convert "$fixtures/cjpeg_baseline.jpg" photo.bmp
"$tool" info photo.bmp | grep -q "^  format     B8G8R8_UNORM (10)$"
"$tool" convert bc3.dds bc3-again.bmp
"$tool" info bc3-again.bmp | grep -q "^  format     B8G8R8A8_UNORM (7)$"
"$tool" convert "$fixtures/pil_rgb8.png" rgb.bmp -f B8G8R8_UNORM
"$tool" info rgb.bmp | grep -q "^  format     B8G8R8_UNORM (10)$"
"$tool" convert "$fixtures/pil_rgba8.png" half.dds -f r16g16b16a16_float
"$tool" info half.dds | grep -q "^  format     R16G16B16A16_FLOAT (18)$"

# --mips builds the whole chain, down to 1x1: 37x23 has six levels; a PNG or
# BMP gets level 0 alone, and says so.
"$tool" convert "$fixtures/pil_rgb8.png" chain.dds --mips --bc1
"$tool" info chain.dds > info.txt
grep -q "^  mips       6$" info.txt
grep -q "^  bytes      672$" info.txt # 480 + 135 + ... in 8-byte blocks
"$tool" convert "$fixtures/pil_rgb8.png" chain-plain.dds -m
"$tool" info chain-plain.dds | grep -q "^  mips       6$"
# A block-compressed level 0 keeps its blocks when its chain is built.
"$tool" convert bc1.dds bc1-chain.dds --mips
cmp <(tail -c +129 bc1.dds) <(tail -c +129 bc1-chain.dds | head -c 480)
"$tool" convert chain.dds level0.png 2> err.txt
grep -q "note: 'level0.png' gets level 0 alone" err.txt
"$tool" info level0.png | grep -q "^  width      37$"

# png: every level, named predictably, listed on standard output.
"$tool" png chain.dds unpacked > list.txt 2> err.txt
[ ! -s err.txt ]
[ "$(wc -l < list.txt)" -eq 6 ]
for m in 0 1 2 3 4 5; do
  grep -q "^unpacked/chain_s0_m$m.png$" list.txt
  [ -f "unpacked/chain_s0_m$m.png" ]
done
"$tool" info unpacked/chain_s0_m2.png > info.txt
grep -q "^  width      9$" info.txt
grep -q "^  height     5$" info.txt
read -r largest mean < <(difference unpacked/chain_s0_m0.png bc1.png)
[ "$largest" -eq 0 ]

# A cube map: six faces of 4x4 B8G8R8A8, each face one colour.
{ printf 'DDS '; le32 124; le32 $((0x1007)); le32 4; le32 4; le32 16; le32 0; le32 1; zeros 44
  le32 32; le32 $((0x41)); le32 0; le32 32; le32 $((0xFF0000)); le32 $((0xFF00)); le32 $((0xFF)); le32 $((0xFF000000))
  le32 $((0x1008)); le32 $((0xFE00)); zeros 12
  for face in 0 1 2 3 4 5; do for i in $(seq 16); do printf "\\x$((face + 1))0\\x00\\x00\\xff"; done; done; } > cube.dds
"$tool" info cube.dds > info.txt
grep -q "^  slices     6 (cube faces)$" info.txt
grep -q "^  dimension  Cube$" info.txt
"$tool" png cube.dds faces > list.txt
[ "$(wc -l < list.txt)" -eq 6 ]
grep -q "^faces/cube_s5_m0.png$" list.txt
[ "$(pixels faces/cube_s3_m0.png | head -4 | tr '\n' ' ')" = "64 0 0 255 " ]
"$tool" convert cube.dds cube-bc1.dds --bc1 --mips
"$tool" info cube-bc1.dds | grep -q "^  mips       3$"
"$tool" png cube-bc1.dds cube-levels | grep -q "^cube-levels/cube-bc1_s5_m2.png$"
if "$tool" convert cube.dds face.png 2> err.txt; then exit 1; fi
grep -q "'cube.dds' holds 6 cube faces; a PNG file holds one surface" err.txt
if "$tool" convert cube.dds face.bmp 2> err.txt; then exit 1; fi
grep -q "a BMP file holds one surface" err.txt

# A volume: 2x2x2, one level; its depth slices get their own files.
{ printf 'DDS '; le32 124; le32 $((0x801007)); le32 2; le32 2; le32 8; le32 2; le32 1; zeros 44
  le32 32; le32 $((0x41)); le32 0; le32 32; le32 $((0xFF0000)); le32 $((0xFF00)); le32 $((0xFF)); le32 $((0xFF000000))
  le32 $((0x1000)); le32 $((0x200000)); zeros 12; head -c 32 /dev/urandom; } > volume.dds
"$tool" info volume.dds | grep -q "^  dimension  3D$"
"$tool" png volume.dds slices > list.txt
[ "$(tr '\n' ' ' < list.txt)" = "slices/volume_s0_m0_z0.png slices/volume_s0_m0_z1.png " ]
if "$tool" convert volume.dds volume-chain.dds --mips 2> err.txt; then exit 1; fi
grep -q "mip generation does not filter volumes" err.txt

# Files that cannot be read: each says which file and why, exit 1.
expect_failure() { # message, then the arguments
  local message="$1"; shift
  set +e; "$tool" "$@" > /dev/null 2> err.txt; local status=$?; set -e
  [ $status -eq 1 ] || { echo "exit $status for: $*"; exit 1; }
  grep -q -e "$message" err.txt || { echo "no '$message' for: $*"; cat err.txt; exit 1; }
}
expect_failure "'nothing.png' does not exist" info nothing.png
mkdir adir
expect_failure "'adir' is a directory" info adir
printf 'just some text' > text.png
expect_failure "'text.png' is not a PNG file the engine can decode" info text.png
printf 'just some text' > text.xyz
expect_failure "'text.xyz' is not an image file the engine reads" info text.xyz
head -c 100 "$fixtures/pil_rgba8.png" > cut.png
expect_failure "'cut.png' is not a PNG file the engine can decode.*: Loading PNG failed" convert cut.png out.dds
[ ! -e out.dds ]
head -c 300 "$fixtures/im_bc3.dds" > cut.dds
expect_failure "'cut.dds' is not a DDS file" png cut.dds cut-out
head -c 600 "$fixtures/pil_rgb24.bmp" > cut.bmp
expect_failure "'cut.bmp' is not a BMP file.*: Load bitmap failed" info cut.bmp
{ head -c 128 "$fixtures/im_rgba.dds"; } > header-only.dds
expect_failure "'header-only.dds' is not a DDS file" info header-only.dds
expect_failure "cannot write 'no/such/dir/x.png'" convert "$fixtures/pil_rgb8.png" no/such/dir/x.png
# Saving goes through a file beside OUT: IN may be OUT, and a failed save
# leaves what was there, and no stray file.
cp "$fixtures/pil_rgb8.png" same.png
"$tool" convert same.png same.png
"$tool" info same.png | grep -q "^  width      37$"
mkdir taken.png
expect_failure "cannot write 'taken.png': Is a directory" convert "$fixtures/pil_rgb8.png" taken.png
[ -d taken.png ] && [ -z "$(ls -d taken.png.* 2> /dev/null)" ]
touch blocker
expect_failure "'blocker' exists and is not a directory" png "$fixtures/pil_rgb8.png" blocker
if [ "$(id -u)" -ne 0 ]; then
  cp "$fixtures/pil_rgb8.png" locked.png && chmod 000 locked.png
  expect_failure "'locked.png' cannot be read: Permission denied" info locked.png
fi

# Usage errors: exit 2, with the reason.
expect_usage() {
  local message="$1"; shift
  set +e; "$tool" "$@" > /dev/null 2> err.txt; local status=$?; set -e
  [ $status -eq 2 ] || { echo "exit $status for: $*"; exit 1; }
  grep -q -e "$message" err.txt || { echo "no '$message' for: $*"; cat err.txt; exit 1; }
}
expect_usage "no command given" 
expect_usage "unknown command 'resize'" resize a b
expect_usage "info needs at least one FILE" info
expect_usage "convert needs IN and OUT" convert only-in.png
expect_usage "png needs IN and OUTDIR" png only-in.png
expect_usage "unknown format 'BC7_UNORM'" convert "$fixtures/pil_rgb8.png" x.dds --format BC7_UNORM
expect_usage "the engine cannot convert to R8G8_UNORM" convert "$fixtures/pil_rgb8.png" x.dds -f R8G8_UNORM
expect_usage "give one target format" convert "$fixtures/pil_rgb8.png" x.dds --bc1 --bc3
expect_usage "a PNG file cannot hold BC1_UNORM" convert "$fixtures/pil_rgb8.png" x.png --bc1
expect_usage "a BMP file cannot hold R16G16B16A16_FLOAT" convert "$fixtures/pil_rgb8.png" x.bmp -f R16G16B16A16_FLOAT
expect_usage "--mips needs .dds" convert "$fixtures/pil_rgb8.png" x.png --mips
expect_usage "cannot tell the file type of 'x.gif'" convert "$fixtures/pil_rgb8.png" x.gif
expect_usage "belong to convert" info "$fixtures/pil_rgb8.png" --bc1
expect_usage "unknown option '--bogus'" info "$fixtures/pil_rgb8.png" --bogus
[ ! -e x.dds ] && [ ! -e x.png ]

# The shared command line.
"$tool" --help > help.txt
grep -q "^usage: kovex-image info FILE" help.txt
grep -q "Exit status: 0 success, 1 failure" help.txt
"$tool" --version | grep -q "^kovex-image (KovexEngine) [0-9]"

# Progress: by bytes on a terminal, nothing otherwise. A 32-bit BMP of
# 1024x512 (2 MiB of pixels) is large enough to show it.
{ printf 'BM'; le32 $((54 + 2097152)); le32 0; le32 54; le32 40; le32 1024; le32 512
  printf '\x01\x00\x20\x00'; le32 0; le32 2097152; zeros 16; head -c 2097152 /dev/urandom; } > big.bmp
"$tool" png big.bmp big-out > /dev/null 2> err.txt
[ ! -s err.txt ]
if command -v script > /dev/null; then
  script -qec "'$tool' png big.bmp big-tty" /dev/null > tty.txt
  grep -q "png: *[0-9]*%  .* of 2.0 MiB" tty.txt
fi
echo "image tool: all steps passed"
