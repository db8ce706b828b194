#!/usr/bin/env bash
# bench/callgrind_fetch.sh -- user-space instructions per small-message FETCH,
# engine and bare client, counted by callgrind against the in-memory server.
# Unlike times, the counts do not depend on what else the machine is doing,
# so they compare builds reliably on a busy host.
#
#   bench/callgrind_fetch.sh [E2E_BINARY] [COUNT]
#
# E2E_BINARY defaults to build-bench/bench/zrimap_e2e, COUNT (messages) to 1000.
# Only the clients' fetch calls are counted (connect, login and the server
# are not). Needs valgrind.
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
E2E=${1:-$ROOT/build-bench/bench/zrimap_e2e}
COUNT=${2:-1000}
WORK=$(mktemp -d /tmp/zrimap-callgrind.XXXXXX)
SERVER_PID=
cleanup() {
    [ -n "$SERVER_PID" ] && kill "$SERVER_PID" 2>/dev/null || true
    rm -rf "$WORK"
}
trap cleanup EXIT

command -v valgrind >/dev/null || { echo "callgrind_fetch.sh: valgrind is not installed" >&2; exit 1; }
"$E2E" serve --ready-fd 3 --small "$COUNT" 3>"$WORK/ports" >/dev/null 2>&1 &
SERVER_PID=$!
for _ in $(seq 1 100); do [ -s "$WORK/ports" ] && break; sleep 0.1; done
[ -s "$WORK/ports" ] || { echo "callgrind_fetch.sh: the in-memory server did not start" >&2; exit 1; }
PORT=$(cut -d' ' -f1 "$WORK/ports")

for impl in engine bare; do
    valgrind --tool=callgrind --callgrind-out-file="$WORK/$impl.out" \
        --toggle-collect='(anonymous namespace)::EngineClient::fetch*' \
        --toggle-collect='(anonymous namespace)::BareClient::fetch*' \
        "$E2E" client --impl "$impl" --scenario small --count "$COUNT" --port "$PORT" \
        >"$WORK/$impl.result" 2>"$WORK/$impl.log"
    grep -q 'ok=1' "$WORK/$impl.result" || { echo "callgrind_fetch.sh: $impl run failed" >&2; cat "$WORK/$impl.result" >&2; exit 1; }
    total=$(sed -n 's/.*Collected : \([0-9]*\).*/\1/p' "$WORK/$impl.log")
    printf '%-6s %12s instructions in %s FETCHes = %6d per FETCH\n' "$impl" "$total" "$COUNT" $((total / COUNT))
done
