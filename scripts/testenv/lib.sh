# lib.sh -- helpers shared by the start-*/stop-* scripts (sourced, not run).
# bash only.

log() { printf '[%s] %s\n' "$(basename "$0")" "$*" >&2; }
die() { log "ERROR: $*"; exit 1; }

require_root() {
    [ "$(id -u)" = 0 ] || die "must run as root (installs packages, creates users, servers switch users)"
}

# Bounds, in seconds.
: "${ZRIMAP_START_TIMEOUT:=30}"   # wait for a server to accept connections
: "${ZRIMAP_STOP_TIMEOUT:=10}"    # SIGTERM grace period before SIGKILL

# ---------------------------------------------------------------- packages

pkg_installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'; }

# apt_install PKG...: install the missing ones, quietly; nothing to do is fast.
# Maintainer scripts would start system daemons (dovecot on 143/993, sshd on
# 22); a temporary /usr/sbin/policy-rc.d answering 101 prevents that.  It is
# removed again only if this function created it.  apt-get update runs only
# when there are no package lists or the first install attempt fails.
apt_install() {
    local missing=() p
    for p in "$@"; do pkg_installed "$p" || missing+=("$p"); done
    [ ${#missing[@]} -eq 0 ] && return 0
    log "installing missing packages: ${missing[*]}"
    local created=0 rc=0
    if [ ! -e /usr/sbin/policy-rc.d ]; then
        printf '#!/bin/sh\n# temporary, created by zrimap testenv apt_install\nexit 101\n' > /usr/sbin/policy-rc.d
        chmod 755 /usr/sbin/policy-rc.d
        created=1
    fi
    local apt=(env DEBIAN_FRONTEND=noninteractive apt-get -y -q -o DPkg::Lock::Timeout=300)
    if ! compgen -G '/var/lib/apt/lists/*_Packages*' >/dev/null; then
        log "no package lists yet: apt-get update"
        "${apt[@]}" update >/dev/null || true
    fi
    if ! "${apt[@]}" install --no-install-recommends "${missing[@]}" >/dev/null; then
        log "apt-get install failed; running apt-get update once and retrying"
        "${apt[@]}" update >/dev/null || true
        "${apt[@]}" install --no-install-recommends "${missing[@]}" >/dev/null || rc=$?
    fi
    if [ $created = 1 ] && grep -q 'zrimap testenv apt_install' /usr/sbin/policy-rc.d 2>/dev/null; then
        rm -f /usr/sbin/policy-rc.d
    fi
    [ $rc = 0 ] || die "apt-get install ${missing[*]} failed (rc=$rc)"
    for p in "${missing[@]}"; do pkg_installed "$p" || die "package $p still not installed"; done
    log "installed: ${missing[*]}"
}

# ---------------------------------------------------------------- directories

# Every ancestor of a path must be searchable (o+x) by the unprivileged users
# the servers switch to (dovecot, dovenull, vmail, sshd).
check_traversable() {
    local d=$1
    while [ "$d" != / ]; do
        d=$(dirname "$d")
        if ! stat -c %A "$d" | grep -q '^.........[xt]$'; then
            die "$d is not world-searchable (o+x); unprivileged server processes cannot reach files below it. Use a directory under /tmp or chmod o+x $d"
        fi
    done
}

# lock_dir DIR: serialise start/stop scripts working on the same DIR (fd 9).
# Daemons are started through exec_clean, so they do not inherit the lock.
lock_dir() {
    exec 9>"$1/.lock"
    flock -w 300 9 || die "could not lock $1/.lock within 300 s (another start/stop script is stuck?)"
}

# exec_clean CMD...: close every descriptor above 2 (our lock, pipes a
# caller such as CTest may have passed down), then exec CMD.  Use it in a
# subshell with stdio redirected: ( exec_clean daemon ... ) </dev/null >>log 2>&1
# A daemon holding a caller's pipe would keep that caller waiting forever.
exec_clean() {
    local fd
    for fd in $(ls "/proc/$BASHPID/fd"); do
        [ "$fd" -gt 2 ] && eval "exec $fd>&-" 2>/dev/null
    done
    exec "$@"
}

# ---------------------------------------------------------------- ports

port_listening() { ss -Hltn "sport = :$1" 2>/dev/null | grep -q .; }

port_owner() { ss -Hltnp "sport = :$1" 2>/dev/null | head -3; }

# port_accepts PORT: a TCP connection to 127.0.0.1:PORT succeeds.
port_accepts() { timeout 3 bash -c "exec 3<>/dev/tcp/127.0.0.1/$1" 2>/dev/null; }

# require_port_free PORT WHAT
require_port_free() {
    if port_listening "$1"; then
        die "port $1 ($2) is already in use by another process: $(port_owner "$1")
  Choose other ports (ZRIMAP_*_PORT, or ZRIMAP_TESTENV_PORT_BASE for the CTest fixtures) or stop that process."
    fi
}

# wait_accept PORT PID NAME: wait up to ZRIMAP_START_TIMEOUT s until PORT
# accepts connections; fail at once if PID dies meanwhile.
wait_accept() {
    local port=$1 pid=$2 name=$3 i
    for ((i = 0; i < ZRIMAP_START_TIMEOUT * 10; i++)); do
        pid_alive "$pid" || { log "$name (pid $pid) exited while starting"; return 1; }
        if port_listening "$port" && port_accepts "$port"; then return 0; fi
        sleep 0.1
    done
    log "$name (pid $pid) does not accept connections on 127.0.0.1:$port after ${ZRIMAP_START_TIMEOUT} s"
    return 1
}

# ---------------------------------------------------------------- processes

# pid_alive PID: the process exists and is not a zombie.  Daemons end up as
# children of init (or of a container's subreaper), which may take a while to
# reap them; an exited but unreaped process counts as gone.
pid_alive() {
    local s
    [ -n "${1:-}" ] && kill -0 "$1" 2>/dev/null || return 1
    s=$(cat "/proc/$1/stat" 2>/dev/null) || return 1
    s=${s##*) }
    [ "${s%% *}" != Z ]
}

# proc_starttime PID: start time in clock ticks since boot (field 22 of
# /proc/PID/stat).  Stored next to each PID so a recycled PID is never signalled.
proc_starttime() {
    local s
    s=$(cat "/proc/$1/stat" 2>/dev/null) || return 1
    s=${s##*) }                 # drop "pid (comm) "; comm may contain spaces
    set -- $s
    echo "${20}"
}

# same_process PID STARTTIME: PID is alive and still the process we recorded.
same_process() {
    pid_alive "$1" || return 1
    [ -z "${2:-}" ] || [ "$2" = - ] || [ "$(proc_starttime "$1")" = "$2" ]
}

# descendants PID: all live descendants, as "pid starttime" lines.
descendants() {
    local root=$1 kids p
    ps -e -o pid=,ppid= 2>/dev/null | awk -v r="$root" '
        { parent[$1] = $2; pids[NR] = $1 }
        END {
            want[r] = 1; changed = 1
            while (changed) {
                changed = 0
                for (i in pids) { p = pids[i]
                    if (!(p in want) && (parent[p] in want)) { want[p] = 1; changed = 1 } }
            }
            for (p in want) if (p != r) print p
        }' | while read -r p; do
            kids=$(proc_starttime "$p") && echo "$p $kids"
        done
}

# wait_gone PID STARTTIME SECONDS
wait_gone() {
    local i
    for ((i = 0; i < $3 * 10; i++)); do same_process "$1" "$2" || return 0; sleep 0.1; done
    return 1
}

# stop_pid NAME PID STARTTIME: SIGTERM the process we started, SIGKILL after
# ZRIMAP_STOP_TIMEOUT s.  Its descendants (Dovecot's auth/login/imap
# processes, sshd's per-connection processes) are recorded first, and any of
# them still alive afterwards are terminated the same way, by PID.
stop_pid() {
    local name=$1 pid=$2 st=$3 kids k kst rc=0
    if ! same_process "$pid" "$st"; then
        log "$name (pid $pid) not running"
        return 0
    fi
    kids=$(descendants "$pid")
    kill -TERM "$pid" 2>/dev/null || true
    if wait_gone "$pid" "$st" "$ZRIMAP_STOP_TIMEOUT"; then
        log "stopped $name (pid $pid)"
    else
        log "$name (pid $pid) still running ${ZRIMAP_STOP_TIMEOUT} s after SIGTERM; sending SIGKILL"
        kill -KILL "$pid" 2>/dev/null || true
        if wait_gone "$pid" "$st" 5; then log "killed $name (pid $pid)"; else log "ERROR: $name (pid $pid) survives SIGKILL"; rc=1; fi
    fi
    [ -n "$kids" ] || return $rc
    # children normally exit together with their parent; give them a moment
    while read -r k kst; do
        wait_gone "$k" "$kst" 1 && continue
        log "child $k of $name still running; sending SIGTERM"
        kill -TERM "$k" 2>/dev/null || true
        wait_gone "$k" "$kst" "$ZRIMAP_STOP_TIMEOUT" && continue
        kill -KILL "$k" 2>/dev/null || true
        wait_gone "$k" "$kst" 5 || { log "ERROR: child $k of $name survives SIGKILL"; rc=1; }
    done <<<"$kids"
    return $rc
}

# The pids file: one "name pid starttime address" line per process we started.
record_pid() {  # record_pid FILE NAME PID ADDRESS
    echo "$2 $3 $(proc_starttime "$3" || echo -) $4" >> "$1"
}

# stop_from_pidfile FILE: stop every process listed, last started first.
stop_from_pidfile() {
    local f=$1 name pid st rest rc=0
    [ -f "$f" ] || { log "no $f: nothing to stop"; return 0; }
    while read -r name pid st rest; do
        case "$name" in ''|'#'*) continue ;; esac
        stop_pid "$name" "$pid" "$st" || rc=1
    done < <(tac "$f")
    [ $rc = 0 ] && rm -f "$f"
    return $rc
}

# all_running FILE: the file lists at least one process and all are alive.
all_running() {
    local f=$1 name pid st rest n=0
    [ -f "$f" ] || return 1
    while read -r name pid st rest; do
        case "$name" in ''|'#'*) continue ;; esac
        same_process "$pid" "$st" || return 1
        n=$((n + 1))
    done < "$f"
    [ $n -gt 0 ]
}
