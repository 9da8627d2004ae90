#!/usr/bin/env bash
# Installs the build to a temporary prefix and uses it as a stranger would:
# the installed demo and tools run from anywhere and find the installed data,
# every installed header is reachable from KovexEngine.h, and programs build
# against the install with find_package and with pkg-config, warning-free.
#   install_and_consume.sh BUILD_DIR SOURCE_DIR "EXTRA_FLAGS"
set -euo pipefail
build="$(cd "$1" && pwd)"
source="$(cd "$2" && pwd)"
flags="${3:-}"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"
cmake --install "$build" --prefix "$prefix" > /dev/null
cd "$work"
libdir="$(dirname "$(find "$prefix" -name 'libKovexEngine.so.0' | head -n 1)")"
[ -d "$libdir" ]

# Installed programs start (relative RPATH) and find the installed data.
"$prefix/bin/KovexDemo" --null 5 > demo.txt
grep -q "^Data root: $prefix/share/KovexEngine/Data/$" demo.txt
grep -q "Engine shut down cleanly" demo.txt
# The rendering mode compiles the installed templates (leak checking off for
# the driver's allocations, as tests/tools/demo.sh says).
ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0" "$prefix/bin/KovexDemo" 3 --output "$work/frame.png" > render.txt
grep -q "Engine shut down cleanly" render.txt
if grep -q "^Renderer: Vulkan" render.txt; then [ -s "$work/frame.png" ]; fi
"$prefix/bin/kovex-classes" Vector3 | grep -q "struct Vector3"
"$prefix/bin/kovex-pack" --help | grep -q "usage"
"$prefix/bin/kovex-dump" --version | grep -q "kovex-dump"

# Every installed header is reachable from the umbrella header.
inc="$prefix/include/KovexEngine"
echo '#include "KovexEngine.h"' | g++ -std=c++20 -I"$inc" -x c++ -MM - | tr ' \\' '\n\n' \
  | grep "^$inc/" | sed "s|^$inc/||" | sort -u > reached.txt
(cd "$inc" && find . -name '*.h' | sed 's|^\./||' | sort) > installed.txt
if ! diff -u installed.txt reached.txt; then
  echo "headers above are installed but not reachable from KovexEngine.h (or the reverse)"
  exit 1
fi

# find_package: the README's first program and a use of every subsystem.
cmake -S "$source/tests/install/consumer" -B consumer -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_PREFIX_PATH="$prefix" -DFIRST_PROGRAM="$source/samples/first/FirstProgram.cpp" \
  -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" > /dev/null
cmake --build consumer -j 2 > build.txt || { cat build.txt; exit 1; }
consumer/first > first.txt
grep -q 'Loaded "' first.txt
grep -q "Ran 10 frames" first.txt
consumer/every_subsystem | grep -q "every subsystem ok"

# pkg-config: no -std of its own, so a C++23 program stays C++23.
export PKG_CONFIG_PATH="$libdir/pkgconfig"
if pkg-config --cflags kovexengine | grep -q -- "-std="; then
  echo "the pkg-config file forces a language standard"; exit 1
fi
printf '#include "KovexEngine.h"\nstatic_assert(__cplusplus > 202002L, "downgraded");\nint main() { return KovexEngine::Kovex_Main_IsInited() ? 1 : 0; }\n' > cxx23.cpp
# shellcheck disable=SC2046,SC2086
g++ -std=c++23 -Wall -Wextra -Wnon-virtual-dtor -Werror $flags cxx23.cpp $(pkg-config --cflags --libs kovexengine) \
  -Wl,-rpath,"$libdir" -o cxx23
./cxx23
echo "install and consume ok"
