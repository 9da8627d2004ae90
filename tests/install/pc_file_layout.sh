#!/usr/bin/env bash
# The pkg-config file of a build whose library directory is two levels deep,
# as Debian's multiarch layout has it, points at the prefix it lies under.
#   pc_file_layout.sh SOURCE_DIR GENERATOR
set -euo pipefail
source="$(cd "$1" && pwd)"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cmake -S "$source" -B "$work/build" -G "$2" -DCMAKE_INSTALL_LIBDIR=lib/x86_64-linux-gnu \
  -DKOVEX_BUILD_TESTS=OFF -DKOVEX_BUILD_SAMPLES=OFF -DKOVEX_BUILD_BENCHMARKS=OFF > /dev/null
prefix="$work/prefix"
mkdir -p "$prefix/lib/x86_64-linux-gnu/pkgconfig" "$prefix/include/KovexEngine"
cp "$work/build/kovexengine.pc" "$prefix/lib/x86_64-linux-gnu/pkgconfig/"
export PKG_CONFIG_PATH="$prefix/lib/x86_64-linux-gnu/pkgconfig"
libdir="$(pkg-config --variable=libdir kovexengine)"
includedir="$(pkg-config --variable=includedir kovexengine)"
[ "$(cd "$libdir" && pwd)" = "$prefix/lib/x86_64-linux-gnu" ] || { echo "libdir $libdir"; exit 1; }
[ "$(cd "$includedir" && pwd)" = "$prefix/include/KovexEngine" ] || { echo "includedir $includedir"; exit 1; }
echo "pc file layout ok"
