#!/usr/bin/env bash
# Runs one fuzz target on its seed corpus.
#
#   fuzz/run.sh BUILD_DIR TARGET SECONDS [more libFuzzer options...]
#
# The seeds in fuzz/corpus/TARGET are only read: inputs the run finds
# interesting go to $ZRIMAP_FUZZ_WORK/TARGET/corpus (default work directory:
# BUILD_DIR/fuzz-work), crash, leak and time-out reproducers to
# .../TARGET/artifacts/. The exit status is the target's: 0 when the time ran
# out without a finding. Reproduce a finding with
#   BUILD_DIR/fuzz/TARGET path/to/artifact
set -euo pipefail

if [ $# -lt 3 ]; then
  echo "usage: $0 BUILD_DIR TARGET SECONDS [libFuzzer options...]" >&2
  exit 2
fi
build=$1 target=$2 seconds=$3
shift 3
here=$(cd "$(dirname "$0")" && pwd)
bin=$build/fuzz/$target
if [ ! -x "$bin" ]; then
  echo "$0: $bin not built (configure with -DZRIMAP_BUILD_FUZZERS=ON)" >&2
  exit 2
fi
seeds=$here/corpus/$target
if [ ! -d "$seeds" ]; then
  echo "$0: no seed corpus $seeds" >&2
  exit 2
fi
work=${ZRIMAP_FUZZ_WORK:-$build/fuzz-work}/$target
mkdir -p "$work/corpus" "$work/artifacts"

# A single input never needs more than a few seconds: more is a hang. The
# targets run under an 8 MiB buffer ceiling, so one allocation above 64 MiB
# means something got past it; the total is far above what a correct run
# takes.
exec "$bin" \
  -max_total_time="$seconds" \
  -timeout=15 \
  -rss_limit_mb=3072 \
  -malloc_limit_mb=64 \
  -max_len=65536 \
  -dict="$here/imap.dict" \
  -print_final_stats=1 \
  -artifact_prefix="$work/artifacts/" \
  "$@" \
  "$work/corpus" "$seeds"
