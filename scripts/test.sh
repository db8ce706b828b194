#!/usr/bin/env bash
# Builds zrimap twice (a normal build and one under AddressSanitizer and
# UndefinedBehaviorSanitizer) and runs the whole test suite in each, then
# builds the fuzz targets with clang and runs each for a short while.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

"$root/scripts/setup.sh"

jobs=$(nproc 2>/dev/null || echo 2)
export ASAN_OPTIONS="halt_on_error=1:detect_leaks=1:abort_on_error=0"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
export CTEST_OUTPUT_ON_FAILURE=1

status=0
run_suite() {
  local name=$1 dir=$2; shift 2
  echo "=== $name build ($dir) ==="
  cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
  echo "=== $name tests ==="
  if ! (cd "$dir" && ctest -j "$jobs" --timeout 600); then
    status=1
  fi
}

run_suite normal "$root/build"
run_suite sanitizers "$root/build-asan" -DZRIMAP_SANITIZE=ON

echo "=== fuzz targets (30 s each) ==="
if ! "$root/fuzz/ci.sh" 30; then
  status=1
fi

if [[ $status -ne 0 ]]; then
  echo "zrimap tests: FAILED"
else
  echo "zrimap tests: all passed in both builds; fuzz targets found nothing"
fi
exit $status
