#!/usr/bin/env bash
# bench/run.sh -- builds the benchmarks (Release, own build tree) and runs all
# of them: the micro-benchmarks, then the end-to-end program against the
# in-memory server (plain TCP and TLS) and a seeded local Dovecot (plain and
# implicit TLS). Everything listens on 127.0.0.1 only.
#
#   bench/run.sh                 build, start + seed Dovecot, run everything
#   bench/run.sh --no-dovecot    in-memory server only
#   bench/run.sh --keep-dovecot  leave the Dovecot running afterwards
#   bench/run.sh --quick         fewer repetitions, shorter micro runs
#
# Environment (all optional):
#   ZRIMAP_BENCH_BUILD   build tree            (default: <repo>/build-bench)
#   ZRIMAP_BENCH_DIR     Dovecot directory     (default: /tmp/zrimap-bench; <= 60 characters)
#   ZRIMAP_IMAP_PORT / ZRIMAP_IMAPS_PORT / ZRIMAP_OAUTH_PORT
#                        Dovecot's ports       (default: 14510 / 14511 / 14520)
#   ZRIMAP_BENCH_REPS    repetitions per e2e cell (default: 5; --quick: 3)
#
# Results go to $ZRIMAP_BENCH_BUILD/results/: machine.md, micro.txt,
# micro.json, e2e.md, e2e.json (every sample) and REPORT.md (all together).
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=${ZRIMAP_BENCH_BUILD:-$ROOT/build-bench}
DOVECOT_DIR=${ZRIMAP_BENCH_DIR:-/tmp/zrimap-bench}
export ZRIMAP_IMAP_PORT=${ZRIMAP_IMAP_PORT:-14510}
export ZRIMAP_IMAPS_PORT=${ZRIMAP_IMAPS_PORT:-14511}
export ZRIMAP_OAUTH_PORT=${ZRIMAP_OAUTH_PORT:-14520}

USE_DOVECOT=1
KEEP_DOVECOT=0
QUICK=0
for arg in "$@"; do
    case "$arg" in
        --no-dovecot) USE_DOVECOT=0 ;;
        --keep-dovecot) KEEP_DOVECOT=1 ;;
        --quick) QUICK=1 ;;
        -h|--help) sed -n '2,22p' "$0"; exit 0 ;;
        *) echo "run.sh: unknown argument $arg" >&2; exit 2 ;;
    esac
done
REPS=${ZRIMAP_BENCH_REPS:-$([ "$QUICK" = 1 ] && echo 3 || echo 5)}
MICRO_MIN_TIME=$([ "$QUICK" = 1 ] && echo 0.05 || echo 0.2)

RESULTS=$BUILD/results
START=$(date +%s)
step() { printf '\n== [%3ds] %s\n' "$(( $(date +%s) - START ))" "$*"; }

# --- build --------------------------------------------------------------------
step "configure and build (Release) in $BUILD"
GEN=()
command -v ninja >/dev/null 2>&1 && GEN=(-G Ninja)
# Tests, tool and examples stay off: only the library and the benchmarks are needed.
mkdir -p "$BUILD"
cmake -S "$ROOT" -B "$BUILD" "${GEN[@]}" -DCMAKE_BUILD_TYPE=Release -DZRIMAP_BUILD_BENCHMARKS=ON \
      -DZRIMAP_BUILD_TESTS=OFF -DZRIMAP_BUILD_TOOL=OFF -DZRIMAP_BUILD_EXAMPLES=OFF >"$BUILD/configure.log" 2>&1 \
    || { cat "$BUILD/configure.log"; exit 1; }
cmake --build "$BUILD" --target zrimap_micro zrimap_e2e -j "$(nproc)"
MICRO=$BUILD/bench/zrimap_micro
E2E=$BUILD/bench/zrimap_e2e
mkdir -p "$RESULTS"

# --- machine ------------------------------------------------------------------
step "machine"
{
    echo "| item | value |"
    echo "|---|---|"
    echo "| date | $(date -u '+%Y-%m-%d %H:%M UTC') |"
    echo "| nproc | $(nproc) |"
    echo "| CPU | $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//') |"
    echo "| memory | $(awk '/MemTotal/ {printf "%.1f GiB", $2/1048576}' /proc/meminfo) |"
    echo "| kernel | $(uname -r) |"
    echo "| compiler | $(${CXX:-c++} --version | head -1) |"
    echo "| OpenSSL | $(openssl version 2>/dev/null || echo unknown) |"
    echo "| THP | $(cat /sys/kernel/mm/transparent_hugepage/enabled 2>/dev/null || echo unknown) |"
    echo "| load average at start | $(cut -d' ' -f1-3 /proc/loadavg) |"
} | tee "$RESULTS/machine.md"

# --- Dovecot --------------------------------------------------------------------
DOVECOT_ARGS=()
cleanup() {
    if [ "$USE_DOVECOT" = 1 ] && [ "$KEEP_DOVECOT" = 0 ]; then
        "$ROOT/scripts/testenv/stop-dovecot.sh" "$DOVECOT_DIR" >/dev/null 2>&1 || true
    fi
}
if [ "$USE_DOVECOT" = 1 ]; then
    step "Dovecot in $DOVECOT_DIR (IMAP $ZRIMAP_IMAP_PORT, IMAPS $ZRIMAP_IMAPS_PORT)"
    trap cleanup EXIT
    if "$ROOT/scripts/testenv/start-dovecot.sh" "$DOVECOT_DIR" >"$RESULTS/dovecot-start.log" 2>&1; then
        step "seed alice: Bulk (5000 small messages), Large (1, 10, 100 MiB) -- skipped when present"
        "$E2E" seed --port "$ZRIMAP_IMAP_PORT" --user alice --password alice-pw --small 5000
        DOVECOT_ARGS=(--dovecot-port "$ZRIMAP_IMAP_PORT" --dovecot-tls-port "$ZRIMAP_IMAPS_PORT")
    else
        echo "run.sh: Dovecot did not start (see $RESULTS/dovecot-start.log); in-memory server only" >&2
        tail -5 "$RESULTS/dovecot-start.log" >&2 || true
        USE_DOVECOT=0
    fi
fi

# --- micro-benchmarks -------------------------------------------------------------
step "micro-benchmarks (min time ${MICRO_MIN_TIME}s each)"
"$MICRO" --benchmark_min_time="$MICRO_MIN_TIME" --benchmark_counters_tabular=true \
         --benchmark_out="$RESULTS/micro.json" --benchmark_out_format=json 2>&1 | tee "$RESULTS/micro.txt"

# --- end to end -----------------------------------------------------------------
step "end to end ($REPS repetitions per cell)"
set +e
"$E2E" run --reps "$REPS" --small 5000 --lat-iters 300 "${DOVECOT_ARGS[@]}" --out "$RESULTS/e2e.md" \
    --json "$RESULTS/e2e.json"
E2E_STATUS=$?
set -e

{
    echo "# zrimap benchmark run"
    echo
    echo "## Machine"
    echo
    cat "$RESULTS/machine.md"
    echo "| load average at end | $(cut -d' ' -f1-3 /proc/loadavg) |"
    echo
    echo "## End to end"
    echo
    cat "$RESULTS/e2e.md" 2>/dev/null || echo "(no e2e results)"
    echo
    echo "## Micro-benchmarks"
    echo
    echo '```'
    cat "$RESULTS/micro.txt"
    echo '```'
} >"$RESULTS/REPORT.md"
step "done: $RESULTS/REPORT.md (e2e exit status $E2E_STATUS)"
exit "$E2E_STATUS"
