#!/usr/bin/env bash
# demo.sh -- the main job in one command: builds the zrimap tool, starts a
# throwaway Dovecot on 127.0.0.1 with sample mail, and takes a narrated tour
# of the tool against it. The server is stopped again however the tour ends.
# Exit status 0 only if every step worked.
#
#   ./scripts/demo.sh
#
# Knobs (environment): ZRIMAP_DEMO_DIR (default /tmp/zrimap-demo; server,
# downloads, backup and session log live there), ZRIMAP_DEMO_PORT_BASE
# (default 14410; the first free block of ports from there is used),
# ZRIMAP_DEMO_BUILD_DIR (default build-demo/ in the clone).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
testenv=$root/scripts/testenv
t0=$(date +%s)

if [[ -t 1 ]]; then bold=$'\e[1m' dim=$'\e[2m' red=$'\e[31m' green=$'\e[32m' off=$'\e[0m'
else bold="" dim="" red="" green="" off=""; fi

current="setting up"
steps=0
say()  { printf '\n%s== %s%s\n' "$bold" "$*" "$off"; }
note() { printf '%s%s%s\n' "$dim" "$*" "$off"; }
step() { current=$1; steps=$((steps + 1)); say "$steps. $1"; }
fail() { printf '%szrimap demo: FAILED at "%s": %s%s\n' "$red" "$current" "$*" "$off" >&2; exit 1; }
check() {  # check "what must hold" command...
    local what=$1; shift
    "$@" || fail "$what"
}
trap 'rc=$?; [[ $rc -eq 0 ]] || printf "%szrimap demo: FAILED at \"%s\" (exit %d)%s\n" "$red" "$current" "$rc" "$off" >&2' ERR

SUDO=""
[[ $(id -u) -eq 0 ]] || SUDO="sudo"

# --- 1. what is missing gets installed; the tool gets built --------------------
say "Installing what is missing (scripts/setup.sh)"
"$root/scripts/setup.sh"

build=${ZRIMAP_DEMO_BUILD_DIR:-$root/build-demo}
say "Building the zrimap tool in ${build#$root/}"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DZRIMAP_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" --target zrimap_tool -j "$(nproc 2>/dev/null || echo 2)" | tail -n 1
ZRIMAP=$build/cli/zrimap
[[ -x $ZRIMAP ]] || fail "no executable at $ZRIMAP"

# --- 2. a throwaway Dovecot with sample mail ----------------------------------
port_free() { python3 -c 'import socket,sys; s=socket.socket(); s.bind(("127.0.0.1", int(sys.argv[1])))' "$1" 2>/dev/null; }
base=${ZRIMAP_DEMO_PORT_BASE:-14410}
for _ in $(seq 1 20); do
    if port_free "$base" && port_free $((base + 1)) && port_free $((base + 2)); then break; fi
    base=$((base + 10))
done
export ZRIMAP_IMAP_PORT=$base ZRIMAP_IMAPS_PORT=$((base + 1)) ZRIMAP_OAUTH_PORT=$((base + 2))

demo=${ZRIMAP_DEMO_DIR:-/tmp/zrimap-demo}
dovecot=$demo/dovecot
work=$demo/work
mkdir -p "$demo"
chmod 755 "$demo"   # Dovecot's users must reach the sockets below it
# Only a work directory this script made itself is ever cleared.
if [[ -e $work && ! -e $work/.zrimap-demo ]]; then
    fail "$work exists but was not made by this script; choose another ZRIMAP_DEMO_DIR"
fi
rm -rf "$work"
mkdir -p "$work"
touch "$work/.zrimap-demo"

stop_server() {
    $SUDO "$testenv/stop-dovecot.sh" "$dovecot" >/dev/null 2>&1 || true
}
on_exit() {
    local rc=$?
    [[ -n ${idle_pid:-} ]] && kill "$idle_pid" 2>/dev/null
    stop_server
    exit "$rc"
}
trap on_exit EXIT

say "Starting a throwaway Dovecot on 127.0.0.1:$ZRIMAP_IMAP_PORT (IMAP) and :$ZRIMAP_IMAPS_PORT (IMAPS)"
$SUDO env ZRIMAP_IMAP_PORT="$ZRIMAP_IMAP_PORT" ZRIMAP_IMAPS_PORT="$ZRIMAP_IMAPS_PORT" \
    ZRIMAP_OAUTH_PORT="$ZRIMAP_OAUTH_PORT" ZRIMAP_RESET=1 \
    "$testenv/start-dovecot.sh" "$dovecot" >"$work/dovecot-start.txt"
note "server files in $dovecot; it is stopped when this script ends"
python3 "$testenv/seed-mailbox.py" --port "$ZRIMAP_IMAP_PORT" --big-mb 4 \
    --manifest "$dovecot/manifest.json" >"$work/seed.txt"
note "alice's mailbox seeded: INBOX with 10 messages, folders Work, Entwürfe, 日本語, Bulk, Large, ..."

# --- 3. the tour ----------------------------------------------------------------
url="imaps://alice@127.0.0.1:$ZRIMAP_IMAPS_PORT"
ca=$dovecot/tls/cert.pem
export ZRIMAP_PASSWORD=alice-pw
export NETRC=/dev/null   # the tour uses the environment, not a ~/.netrc of this machine

say "The tour"
cat <<EOF
Every command below runs as
  zrimap --url $url --ca-file $ca SUBCOMMAND ...
that is, over implicit TLS with the server's certificate verified against the
test CA, and the password taken from ZRIMAP_PASSWORD (never from the command
line). Each run connects, logs in, does its work and logs out.
EOF

z() {   # shows the command (on stderr, so pipes see only the output), then runs it
    printf '%s$ zrimap %s%s\n' "$bold" "$*" "$off" >&2
    "$ZRIMAP" --url "$url" --ca-file "$ca" "$@"
}
zq() { "$ZRIMAP" --url "$url" --ca-file "$ca" "$@"; }   # the same, quietly

step "What the server offers (login included)"
z capabilities | tee "$work/caps.txt" | tr '\n' ' ' | fold -s -w 100; echo
check "IDLE announced" grep -qx IDLE "$work/caps.txt"

step "The mailboxes, names in UTF-8"
z list | tee "$work/list.txt"
check "Entwürfe listed" grep -q '^Entwürfe' "$work/list.txt"

step "Counts of INBOX without opening it"
z status INBOX | tee "$work/status.txt"
check "10 messages" grep -q '^messages: *10$' "$work/status.txt"

step "Searching"
z search INBOX UNSEEN | tr '\n' ' '; echo
z search INBOX SUBJECT "Project kickoff" | tee "$work/search.txt" | tr '\n' ' '; echo
check "the thread 8 9 10 found" [ "$(tr '\n' ' ' <"$work/search.txt")" = "8 9 10 " ]

step "The MIME structure of message 5"
z structure INBOX 5 | tee "$work/structure.txt"
check "report.pdf listed" grep -q 'attachment report.pdf' "$work/structure.txt"

step "Downloading message 5 with and without its attachments"
z fetch INBOX 5 --out "$work/full"
z fetch INBOX 5 --without-attachments --out "$work/slim"
full=$(stat -c %s "$work/full/5.eml"); slim=$(stat -c %s "$work/slim/5.eml")
note "with attachments: $full bytes; without: $slim bytes"
check "the slim copy is smaller" [ "$slim" -lt "$full" ]

step "One attachment, decoded"
z part INBOX 5 2 --out "$work/report.pdf"
note "$(head -c 8 "$work/report.pdf" | tr -d '\n') ... $(stat -c %s "$work/report.pdf") bytes"
check "a PDF" [ "$(head -c 5 "$work/report.pdf")" = "%PDF-" ]

step "A large message (a 4 MiB attachment)"
z fetch Large 1 --out "$work/large"
check "over 4 MiB" [ "$(stat -c %s "$work/large/1.eml")" -gt 4000000 ]

step "Appending a message"
printf 'From: Demo <demo@localhost>\r\nTo: Alice <alice@localhost>\r\nSubject: Hello from the zrimap demo\r\nDate: %s\r\nMessage-ID: <hello.%s@demo.localhost>\r\nMIME-Version: 1.0\r\nContent-Type: text/plain; charset=UTF-8\r\n\r\nAppended by scripts/demo.sh.\r\n' \
    "$(date -R)" "$$" >"$work/hello.eml"
z append INBOX "$work/hello.eml" --flag '\Seen' | tee "$work/append.txt"
check "the new UID reported" grep -q 'as UID 11$' "$work/append.txt"

step "IDLE: waiting for new mail while another process delivers some"
"$ZRIMAP" --url "$url" --ca-file "$ca" idle INBOX --count 1 --timeout 30 >"$work/idle.out" 2>"$work/idle.err" &
idle_pid=$!
printf '%s$ zrimap idle INBOX --count 1 --timeout 30 &%s\n' "$bold" "$off" >&2
for _ in $(seq 1 100); do grep -q 'idling on' "$work/idle.err" 2>/dev/null && break; sleep 0.1; done
check "IDLE started" grep -q 'idling on' "$work/idle.err"
note "(idle is waiting; now a second process appends a message)"
sed 's/Hello from the zrimap demo/News arriving during IDLE/; s/hello\./news./' "$work/hello.eml" >"$work/news.eml"
z append INBOX "$work/news.eml"
wait "$idle_pid" || fail "idle saw no event: $(cat "$work/idle.err")"
idle_pid=""
note "idle printed:"
cat "$work/idle.out"
check "the new message noticed" grep -q '^exists 12$' "$work/idle.out"

step "Machine-readable output"
z --json status INBOX | tee "$work/status.json"
check "valid JSON with 12 messages" python3 -c 'import json,sys; sys.exit(json.load(open(sys.argv[1]))["messages"] != 12)' "$work/status.json"

step "A resumable Maildir backup"
z backup INBOX "$work/backup"
note "$(ls "$work/backup/cur" | head -n 3 | tr '\n' ' ')..."
sed 's/Hello from the zrimap demo/One more for the backup/; s/hello\./more./' "$work/hello.eml" >"$work/more.eml"
zq append INBOX "$work/more.eml" >/dev/null
z backup INBOX "$work/backup" | tee "$work/backup.txt"
check "only the new message downloaded" grep -q ': 1 downloaded, 12 already there' "$work/backup.txt"

step "The session log"
z --session-log "$work/session.log" list >/dev/null
note "the whole conversation (requests, responses, notes) is in $work/session.log; what was sent:"
grep -A1 -e '----IMAP REQUEST----' "$work/session.log" | grep -v -e '^--' | cut -c 1-100
check "the password is not in the log" bash -c "! grep -q alice-pw '$work/session.log'"

step "Errors: one line on stderr and a documented exit code"
rc_auth=0 rc_box=0 rc_tls=0
printf '%s$ ZRIMAP_PASSWORD=wrong zrimap status INBOX%s\n' "$bold" "$off" >&2
ZRIMAP_PASSWORD=wrong zq status INBOX || rc_auth=$?
z select NoSuchFolder || rc_box=$?
printf '%s$ zrimap --url %s status INBOX%s   (no --ca-file)\n' "$bold" "$url" "$off" >&2
"$ZRIMAP" --url "$url" status INBOX || rc_tls=$?
note "exit codes: wrong password $rc_auth, unknown mailbox $rc_box, certificate not trusted without --ca-file $rc_tls"
check "exit codes 4, 1 and 3" [ "$rc_auth$rc_box$rc_tls" = "413" ]

current="finishing"
elapsed=$(( $(date +%s) - t0 ))
say "Done"
note "files of this run: $work (downloads, backup, session log)"
note "the same commands work against any IMAP server: zrimap --url imaps://USER@HOST ..."
printf '%szrimap demo: all %d steps passed in %d s%s\n' "$green" "$steps" "$elapsed" "$off"
