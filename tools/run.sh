#!/usr/bin/env bash
# Sets up a fresh Debian machine, builds QXCore and runs one of its jobs.
#
#   bash tools/run.sh demo                      build and run the demonstration host
#   bash tools/run.sh test [--sanitize KIND]    build and run every test (KIND: address, thread)
#   bash tools/run.sh bench [FILTER]            build and run the benchmarks (Release)
#   bash tools/run.sh fuzz [SECONDS]            build the fuzz targets with clang, run each briefly
#
# Packages come from Debian's archive through apt-get, installed only when missing. Each kind of
# build has its own directory: build/, build-address/, build-thread/, build-bench/, build-fuzz/.
set -euo pipefail
cd "$(dirname "$0")/.."

job=${1:-}
shift || true

packages=(cmake ninja-build g++ make binutils pkg-config libgtest-dev libbenchmark-dev libicu-dev
  libx11-dev)
case "$job" in
  fuzz) packages+=(clang libclang-rt-14-dev) ;;
  test) packages+=(locales xvfb xclip) ;;
  bench) packages+=(libmimalloc-dev) ;;
esac

# The locales that the text tests run against (they are skipped, saying so, when one is missing).
make_test_locales() {
  local sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  local have
  have=$(locale -a 2>/dev/null | tr 'A-Z' 'a-z' | tr -d '-')
  for l in de_DE:UTF-8:de_DE.UTF-8 sv_SE:UTF-8:sv_SE.UTF-8 tr_TR:UTF-8:tr_TR.UTF-8 \
           ja_JP:UTF-8:ja_JP.UTF-8 ja_JP:SHIFT_JIS:ja_JP.SJIS; do
    IFS=: read -r input charmap name <<<"$l"
    echo "$have" | grep -qx "$(echo "$name" | tr 'A-Z' 'a-z' | tr -d '-')" && continue
    # Shift_JIS is not ASCII-compatible, which localedef warns about; the locale works.
    $sudo localedef -i "$input" -f "$charmap" "$name" --no-warnings=ascii || true
  done
}

install_missing() {
  local missing=()
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  local sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  echo "Installing: ${missing[*]}"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

configure_and_build() {
  local dir=$1
  shift
  cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
  cmake --build "$dir" --parallel "$(nproc)"
}

install_missing "${packages[@]}"

case "$job" in
  demo)
    configure_and_build build -DCMAKE_BUILD_TYPE=RelWithDebInfo
    ./build/tools/qxdemo
    ;;
  test)
    sanitize=none
    if [ "${1:-}" = "--sanitize" ]; then sanitize=${2:?--sanitize needs address or thread}; fi
    dir=build
    [ "$sanitize" = none ] || dir=build-$sanitize
    configure_and_build "$dir" -DQX_SANITIZE="$sanitize"
    make_test_locales
    ctest --test-dir "$dir" --output-on-failure --parallel "$(nproc)" --timeout 600
    ;;
  bench)
    configure_and_build build-bench -DCMAKE_BUILD_TYPE=Release -DQX_BUILD_BENCH=ON \
      -DQX_BUILD_TESTS=OFF
    for b in build-bench/bench/qx_*_bench; do
      "$b" ${1:+--benchmark_filter="$1"}
    done
    ;;
  fuzz)
    seconds=${1:-30}
    configure_and_build build-fuzz -DCMAKE_CXX_COMPILER=clang++ -DQX_BUILD_FUZZ=ON \
      -DQX_BUILD_TESTS=OFF -DQX_BUILD_TOOLS=OFF -DQX_SANITIZE=address
    for f in build-fuzz/tests/fuzz/fuzz_*; do
      [ -x "$f" ] || continue
      echo "== $f for ${seconds}s"
      "$f" -max_total_time="$seconds" -print_final_stats=1
    done
    ;;
  *)
    sed -n '2,9p' "$0"
    exit 2
    ;;
esac
