#!/bin/bash
# stop-sshd.sh [DIR] -- stop the sshd started by start-sshd.sh DIR, by the PID
# recorded in DIR/pids (SIGTERM, SIGKILL after ZRIMAP_STOP_TIMEOUT s).  Open
# tunnel sessions (per-connection children of that sshd) are ended as well.
# Nothing running: exits 0.
set -uo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
. "$HERE/lib.sh"
[ $# -le 1 ] || { echo "usage: $0 [DIR]" >&2; exit 2; }
if [ $# = 1 ]; then ZRIMAP_SSHD_DIR=$1; fi
. "$HERE/env.sh"
DIR=$(cd "$ZRIMAP_SSHD_DIR" 2>/dev/null && pwd) || { log "no directory $ZRIMAP_SSHD_DIR: nothing to stop"; exit 0; }
[ -f "$DIR/pids" ] || { log "no $DIR/pids: nothing to stop"; exit 0; }
lock_dir "$DIR"
stop_from_pidfile "$DIR/pids" || die "some processes from $DIR/pids could not be stopped"
rm -f "$DIR/sshd.pid"
log "sshd test server in $DIR stopped"
