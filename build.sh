#!/usr/bin/env bash
# Installs what is missing, builds, and runs the demo, the tests or the
# benchmarks.
#
#   ./build.sh run     release build, then the demo application
#   ./build.sh test    sanitizer build (ASan + UBSan), then every test; then
#                      the threaded suites under ThreadSanitizer
#   ./build.sh bench   release build, then the benchmarks
#   ./build.sh setup   only install the packages the build needs
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
mode="${1:-run}"

# Debian packages the build needs; installed only when missing.
packages=(g++ cmake ninja-build ccache pkg-config libgtest-dev libbenchmark-dev zlib1g-dev librapidxml-dev
  libpng-dev libjpeg-dev libsquish-dev
  libvulkan-dev mesa-vulkan-drivers vulkan-validationlayers glslang-tools libxcb1-dev xvfb
  glslang-dev spirv-tools libspirv-cross-c-shared-dev
  python3-pil imagemagick libjpeg-turbo-progs)

install_missing() {
  local missing=()
  for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "Installing: ${missing[*]}"
  local sudo=()
  [ "$(id -u)" -ne 0 ] && sudo=(sudo)
  "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -qq
  "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

jobs="$(nproc 2>/dev/null || echo 2)"

configure_and_build() {
  local dir="$1"; shift
  cmake -S "$root" -B "$root/$dir" -G Ninja "$@" >/dev/null
  cmake --build "$root/$dir" -j "$jobs"
}

install_missing
case "$mode" in
  setup) ;;
  run)
    configure_and_build build/release -DCMAKE_BUILD_TYPE=Release -DKOVEX_BUILD_TESTS=OFF
    "$root/build/release/samples/KovexDemo"
    ;;
  test)
    configure_and_build build/test -DCMAKE_BUILD_TYPE=Debug -DKOVEX_SANITIZE=ON -DKOVEX_BUILD_TESTS=ON
    (cd "$root/build/test" &&
      ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        ctest --output-on-failure -j "$jobs" -LE shader_product)
    # Races show only under ThreadSanitizer: the threaded suites again, built
    # with it (only the test program, which is all the label runs).
    cmake -S "$root" -B "$root/build/tsan" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKOVEX_TSAN=ON \
      -DKOVEX_BUILD_TESTS=ON -DKOVEX_BUILD_SAMPLES=OFF >/dev/null
    cmake --build "$root/build/tsan" -j "$jobs" --target KovexTests
    (cd "$root/build/tsan" && TSAN_OPTIONS=halt_on_error=1 ctest --output-on-failure -L threads)
    ;;
  bench)
    configure_and_build build/bench -DCMAKE_BUILD_TYPE=Release -DKOVEX_BUILD_TESTS=OFF -DKOVEX_BUILD_BENCHMARKS=ON
    "$root/build/bench/bench/KovexBenchmarks" "${@:2}"
    ;;
  *)
    echo "usage: $0 [run|test|bench|setup]" >&2
    exit 2
    ;;
esac
