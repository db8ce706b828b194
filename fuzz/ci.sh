#!/usr/bin/env bash
# Builds the fuzz targets with clang in a tree of their own and runs each on
# its seed corpus for a short while. Exits non-zero as soon as a target
# reports a finding (crash, sanitizer report, leak, time-out) or the build
# fails.
#
#   fuzz/ci.sh [SECONDS_PER_TARGET]        (default 30)
#
# Environment: ZRIMAP_FUZZ_BUILD_DIR (default: build-fuzz in the source
# tree), ZRIMAP_FUZZ_JOBS (build parallelism, default 2).
set -euo pipefail

seconds=${1:-30}
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
build=${ZRIMAP_FUZZ_BUILD_DIR:-$root/build-fuzz}
jobs=${ZRIMAP_FUZZ_JOBS:-2}

for tool in clang clang++ cmake; do
  command -v "$tool" >/dev/null || { echo "fuzz/ci.sh: $tool not found" >&2; exit 1; }
done
# libFuzzer's runtime comes in a package of its own on Debian.
probe=$(mktemp -d)
trap 'rm -rf "$probe"' EXIT
printf '%s\n' '#include <cstddef>' '#include <cstdint>' \
  'extern "C" int LLVMFuzzerTestOneInput(const uint8_t*, size_t) { return 0; }' > "$probe/probe.cpp"
if ! clang++ -fsanitize=fuzzer,address,undefined "$probe/probe.cpp" -o "$probe/probe" 2>"$probe/err"; then
  cat "$probe/err" >&2
  echo "fuzz/ci.sh: clang cannot link libFuzzer (Debian: apt-get install libclang-rt-14-dev)" >&2
  exit 1
fi

generator=()
command -v ninja >/dev/null && generator=(-G Ninja)

CC=clang CXX=clang++ cmake -S "$root" -B "$build" "${generator[@]}" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DZRIMAP_BUILD_FUZZERS=ON \
  -DZRIMAP_BUILD_TESTS=OFF \
  -DZRIMAP_BUILD_TOOL=OFF \
  -DZRIMAP_BUILD_EXAMPLES=OFF \
  -DZRIMAP_BUILD_BENCHMARKS=OFF

mapfile -t targets < "$build/fuzz/targets.txt"
cmake --build "$build" -j "$jobs" --target "${targets[@]}"

# Each run starts from the seeds alone, so the verdict does not depend on
# what an earlier run left in the work directory.
export ZRIMAP_FUZZ_WORK="$build/fuzz-ci-work"
rm -rf "$ZRIMAP_FUZZ_WORK"

failed=0
for t in "${targets[@]}"; do
  echo "=== $t: ${seconds}s"
  log="$ZRIMAP_FUZZ_WORK/$t.log"
  mkdir -p "$ZRIMAP_FUZZ_WORK"
  if "$here/run.sh" "$build" "$t" "$seconds" >"$log" 2>&1; then
    grep -E '^stat::(number_of_executed_units|average_exec_per_sec)' "$log" | sed 's/^/    /' || true
  else
    status=$?
    echo "FINDING in $t (exit $status); last lines of $log:"
    tail -n 60 "$log"
    ls -l "$ZRIMAP_FUZZ_WORK/$t/artifacts" || true
    failed=1
    break
  fi
done

if [ "$failed" -ne 0 ]; then
  echo "fuzz/ci.sh: finding reported"
  exit 1
fi
echo "fuzz/ci.sh: ${#targets[@]} targets ran ${seconds}s each without a finding"
