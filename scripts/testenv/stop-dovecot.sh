#!/bin/bash
# stop-dovecot.sh [DIR] -- stop the Dovecot master and oauth2-server started by
# start-dovecot.sh DIR, by the PIDs recorded in DIR/pids (SIGTERM, SIGKILL
# after ZRIMAP_STOP_TIMEOUT s, default 10).  Nothing else is signalled, except
# leftover child processes of those PIDs.  Nothing running: exits 0.
set -uo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
. "$HERE/lib.sh"
[ $# -le 1 ] || { echo "usage: $0 [DIR]" >&2; exit 2; }
if [ $# = 1 ]; then ZRIMAP_DOVECOT_DIR=$1; fi
. "$HERE/env.sh"
DIR=$(cd "$ZRIMAP_DOVECOT_DIR" 2>/dev/null && pwd) || { log "no directory $ZRIMAP_DOVECOT_DIR: nothing to stop"; exit 0; }
[ -f "$DIR/pids" ] || { log "no $DIR/pids: nothing to stop"; exit 0; }
lock_dir "$DIR"
stop_from_pidfile "$DIR/pids" || die "some processes from $DIR/pids could not be stopped"
# The master removes its pid file itself; a leftover one means it was killed.
rm -f "$DIR/run/master.pid" "$DIR/run/oauth2-server.pid"
log "dovecot test server in $DIR stopped"
