#!/bin/bash
# start-dovecot.sh [DIR] -- throwaway Dovecot IMAP server on 127.0.0.1 for
# integration tests and demos, plus the OAuth2 token/introspection server.
#
#   ZRIMAP_IMAP_PORT   (14310)  IMAP; plaintext auth allowed, STARTTLS offered
#   ZRIMAP_IMAPS_PORT  (14311)  IMAP over implicit TLS
#   ZRIMAP_OAUTH_PORT  (14320)  oauth2-server.py (POST /token, POST /introspect)
#
# DIR defaults to $ZRIMAP_DOVECOT_DIR (see env.sh).  Everything lives under DIR:
# config, passwd-file, TLS certificate, Maildirs, sockets, logs, pids.
# /etc/dovecot is never read.  Must run as root.
#
# Other knobs (environment):
#   ZRIMAP_RESET=1            wipe all mail before starting (restarts a running server)
#   ZRIMAP_DIGEST_REALM=name  DIGEST-MD5 announces realm="name" (default realm="")
#   ZRIMAP_AUTH_DEBUG=yes     verbose auth logging in DIR/log/dovecot.log
#   ZRIMAP_MAIL_USER          system user owning the Maildirs (default vmail)
#   ZRIMAP_START_TIMEOUT      seconds to wait for the ports (default 30)
#
# Already running from DIR with the same settings: prints the PIDs, exits 0.
set -euo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
. "$HERE/lib.sh"

[ $# -le 1 ] || { echo "usage: $0 [DIR]" >&2; exit 2; }
if [ $# = 1 ]; then ZRIMAP_DOVECOT_DIR=$1; fi
. "$HERE/env.sh"
require_root
DIR=$(realpath -m "$ZRIMAP_DOVECOT_DIR")
IMAP_PORT=$ZRIMAP_IMAP_PORT
IMAPS_PORT=$ZRIMAP_IMAPS_PORT
OAUTH_PORT=$ZRIMAP_OAUTH_PORT
DIGEST_REALM=$ZRIMAP_DIGEST_REALM
AUTH_DEBUG=${ZRIMAP_AUTH_DEBUG:-no}
MAIL_USER=${ZRIMAP_MAIL_USER:-vmail}
RESET=${ZRIMAP_RESET:-0}

# Unix sockets live in DIR/run; sun_path is limited to 108 bytes.
[ ${#DIR} -le 60 ] || die "DIR $DIR is too long (${#DIR} characters > 60): Dovecot's unix sockets under DIR/run would exceed the 108-byte sun_path limit. Use a short path such as /tmp/zrimap-testenv/dovecot"
mkdir -p "$DIR"
check_traversable "$DIR/x"
lock_dir "$DIR"

SETTINGS="imap=$IMAP_PORT imaps=$IMAPS_PORT oauth=$OAUTH_PORT realm=$DIGEST_REALM debug=$AUTH_DEBUG mailuser=$MAIL_USER"

summary() {
    cat <<EOF
Dovecot test server running from $DIR
  imap://127.0.0.1:$IMAP_PORT (STARTTLS)   imaps://127.0.0.1:$IMAPS_PORT
  OAuth2: token endpoint http://127.0.0.1:$OAUTH_PORT/token (client imaptest-client / imaptest-secret)
          introspection http://127.0.0.1:$OAUTH_PORT/introspect
  users: alice/alice-pw  bob/bob-pw  carol/'sp ace"quo\\te'  dave/dävé-pw (UTF-8)
  tokens: alice-oauth2-token  bob-oauth2-token  revoked-oauth2-token (inactive)
  DIGEST-MD5 realm: "${DIGEST_REALM}"
  CA file: $DIR/tls/cert.pem
  logs: $DIR/log/   pids: $DIR/pids
$(sed 's/^/    /' "$DIR/pids")
  stop with: $HERE/stop-dovecot.sh $DIR
EOF
}

if all_running "$DIR/pids"; then
    if [ "$(cat "$DIR/settings" 2>/dev/null)" = "$SETTINGS" ] && [ "$RESET" != 1 ]; then
        log "already running from $DIR with the same settings; reusing it"
        summary
        exit 0
    fi
    log "running from $DIR with other settings or ZRIMAP_RESET=1: restarting"
fi
if [ -f "$DIR/pids" ]; then
    stop_from_pidfile "$DIR/pids" || die "could not stop the previous instance listed in $DIR/pids"
fi
rm -f "$DIR/run/master.pid"

require_port_free "$IMAP_PORT" IMAP
require_port_free "$IMAPS_PORT" IMAPS
require_port_free "$OAUTH_PORT" OAuth2

# ---------------------------------------------------------------- packages
apt_install dovecot-core dovecot-imapd openssl python3 iproute2 util-linux
[ -x /usr/bin/python3 ] || die "/usr/bin/python3 missing"
getent passwd dovecot >/dev/null && getent passwd dovenull >/dev/null || \
    die "users dovecot/dovenull missing (they come with dovecot-core)"

# Dovecot refuses to run mail processes as root: mail belongs to a system user.
if ! getent passwd "$MAIL_USER" >/dev/null; then
    log "creating system user $MAIL_USER"
    useradd --system --user-group --home-dir /nonexistent --no-create-home \
        --shell /usr/sbin/nologin "$MAIL_USER"
fi
MAIL_UID=$(id -u "$MAIL_USER")
MAIL_GID=$(id -g "$MAIL_USER")
[ "$MAIL_UID" != 0 ] && [ "$MAIL_GID" != 0 ] || die "ZRIMAP_MAIL_USER=$MAIL_USER: Dovecot will not run mail processes as root"

# ---------------------------------------------------------------- layout
chmod 755 "$DIR"
mkdir -p "$DIR/run" "$DIR/state" "$DIR/log" "$DIR/tls" "$DIR/bin" "$DIR/mail"
chmod 755 "$DIR/run" "$DIR/log" "$DIR/bin" "$DIR/tls"
chmod 750 "$DIR/state"
if [ "$RESET" = 1 ]; then
    log "ZRIMAP_RESET=1: wiping $DIR/mail"
    rm -rf "${DIR:?}/mail"
    mkdir -p "$DIR/mail"
    rm -f "$DIR/manifest.json"
fi
chown "$MAIL_UID:$MAIL_GID" "$DIR/mail"
chmod 750 "$DIR/mail"

cp "$HERE/ntlm-helper.py" "$HERE/ntlm_crypto.py" "$HERE/oauth2-server.py" "$DIR/bin/"
chmod 755 "$DIR/bin/ntlm-helper.py" "$DIR/bin/oauth2-server.py"
chmod 644 "$DIR/bin/ntlm_crypto.py"
# Dovecot runs the helper with a single argument; the wrapper adds ours.  It
# runs as user dovecot, so it must use the system python, not one under /root.
cat > "$DIR/bin/ntlm-helper" <<EOF
#!/bin/sh
exec /usr/bin/python3 -B $DIR/bin/ntlm-helper.py --users $DIR/passwd --log $DIR/log/ntlm-helper.log "\$@"
EOF
chmod 755 "$DIR/bin/ntlm-helper"
touch "$DIR/log/ntlm-helper.log"
chown dovecot:dovecot "$DIR/log/ntlm-helper.log"

# Test users.  {PLAIN} storage lets Dovecot derive CRAM-MD5 / DIGEST-MD5
# credentials and lets ntlm-helper compute NT hashes.  uid/gid/home come from
# the userdb default_fields below.
cat > "$DIR/passwd" <<'EOF'
alice:{PLAIN}alice-pw::::::
bob:{PLAIN}bob-pw::::::
carol:{PLAIN}sp ace"quo\te::::::
dave:{PLAIN}dävé-pw::::::
EOF
chown root:dovecot "$DIR/passwd"
chmod 640 "$DIR/passwd"

# Token -> user; null = known but inactive.  Re-read on every request.
cat > "$DIR/oauth2-tokens.json" <<'EOF'
{
  "alice-oauth2-token": "alice",
  "bob-oauth2-token": "bob",
  "revoked-oauth2-token": null
}
EOF
chmod 644 "$DIR/oauth2-tokens.json"

# ---------------------------------------------------------------- TLS
if ! openssl x509 -in "$DIR/tls/cert.pem" -noout -checkend 86400 >/dev/null 2>&1 || [ ! -s "$DIR/tls/key.pem" ]; then
    log "generating self-signed certificate (CN=localhost, SAN DNS:localhost, IP:127.0.0.1)"
    openssl req -x509 -newkey rsa:2048 -nodes -days 3650 -sha256 \
        -subj "/CN=localhost/O=zrimap test server" \
        -addext "subjectAltName=DNS:localhost,IP:127.0.0.1" \
        -keyout "$DIR/tls/key.pem" -out "$DIR/tls/cert.pem" 2>/dev/null \
        || die "openssl could not create the certificate"
fi
chmod 600 "$DIR/tls/key.pem"
chmod 644 "$DIR/tls/cert.pem"

# ---------------------------------------------------------------- config
cat > "$DIR/oauth2.conf.ext" <<EOF
# oauth2 passdb: every XOAUTH2/OAUTHBEARER token is POSTed as token=... to
# the local introspection endpoint; the answer's "username" must equal the
# SASL user.
introspection_url = http://127.0.0.1:$OAUTH_PORT/introspect
introspection_mode = post
username_attribute = username
active_attribute = active
active_value = true
timeout_msecs = 5000
EOF
chmod 644 "$DIR/oauth2.conf.ext"

REALM_CONF="# auth_realms unset: DIGEST-MD5 challenge carries realm=\"\""
if [ -n "$DIGEST_REALM" ]; then
    # With a realm, DIGEST-MD5 logs in as user@realm; %Ln strips it again.
    REALM_CONF="auth_realms = $DIGEST_REALM
auth_default_realm = $DIGEST_REALM
auth_username_format = %Ln"
fi

cat > "$DIR/dovecot.conf" <<EOF
# Generated by start-dovecot.sh; self-contained, /etc/dovecot is not used.
instance_name = zrimap-$IMAP_PORT
base_dir = $DIR/run
state_dir = $DIR/state
protocols = imap
listen = 127.0.0.1
log_path = $DIR/log/dovecot.log
info_log_path = $DIR/log/dovecot.log
debug_log_path = $DIR/log/dovecot.log
login_greeting = Dovecot test server ready.
login_trusted_networks =

ssl = yes
ssl_cert = <$DIR/tls/cert.pem
ssl_key = <$DIR/tls/key.pem
ssl_min_protocol = TLSv1.2

# plaintext auth (LOGIN, PLAIN, ...) allowed without TLS on port $IMAP_PORT
disable_plaintext_auth = no
auth_mechanisms = plain login cram-md5 digest-md5 ntlm xoauth2 oauthbearer
auth_verbose = yes
auth_debug = $AUTH_DEBUG
auth_cache_size = 0
auth_failure_delay = 0
# NTLM: this Dovecot has no built-in NTLM; the winbind mechanism runs a
# squid-2.5-ntlmssp helper, and ours checks against the passwd-file.
auth_use_winbind = yes
auth_winbind_helper_path = $DIR/bin/ntlm-helper
$REALM_CONF

passdb {
  driver = passwd-file
  args = scheme=PLAIN $DIR/passwd
  mechanisms = plain login cram-md5 digest-md5
}
passdb {
  driver = oauth2
  args = $DIR/oauth2.conf.ext
  mechanisms = xoauth2 oauthbearer
}
userdb {
  driver = passwd-file
  args = $DIR/passwd
  default_fields = uid=$MAIL_UID gid=$MAIL_GID home=$DIR/mail/%u
}

# Mail processes may not run as root: everything runs as $MAIL_USER.
mail_uid = $MAIL_UID
mail_gid = $MAIL_GID
first_valid_uid = $MAIL_UID
last_valid_uid = $MAIL_UID
first_valid_gid = $MAIL_GID
# LAYOUT=fs: folders are plain subdirectories, so "." is allowed in names.
mail_location = maildir:~/Maildir:LAYOUT=fs
mail_fsync = never
mailbox_idle_check_interval = 1 secs
imap_idle_notify_interval = 2 mins
mail_max_userip_connections = 50

namespace inbox {
  inbox = yes
  separator = /
  mailbox Drafts {
    special_use = \Drafts
    auto = subscribe
  }
  mailbox Sent {
    special_use = \Sent
    auto = subscribe
  }
  mailbox Trash {
    special_use = \Trash
    auto = subscribe
  }
  mailbox Junk {
    special_use = \Junk
    auto = subscribe
  }
  mailbox Archive {
    special_use = \Archive
    auto = subscribe
  }
}

service imap-login {
  inet_listener imap {
    address = 127.0.0.1
    port = $IMAP_PORT
  }
  inet_listener imaps {
    address = 127.0.0.1
    port = $IMAPS_PORT
    ssl = yes
  }
  process_min_avail = 0
}
# Auth penalty: after a failed login Dovecot would delay every further auth
# from 127.0.0.1 by 2..15 s.  Mode 0 on this socket switches it off (one
# harmless "anvil-auth-penalty ... Connection refused" line at startup).
service anvil {
  unix_listener anvil-auth-penalty {
    mode = 0
  }
}
EOF
chmod 644 "$DIR/dovecot.conf"

doveconf -c "$DIR/dovecot.conf" -n > "$DIR/log/doveconf-n.txt" 2>&1 || {
    cat "$DIR/log/doveconf-n.txt" >&2; die "doveconf rejected $DIR/dovecot.conf"; }

# ---------------------------------------------------------------- start
# Daemons get no stdio and no other descriptors from us (a CTest or `| tee`
# pipe would otherwise stay open forever), and not the lock on fd 9.
echo "$SETTINGS" > "$DIR/settings"
: > "$DIR/pids"
fail() {  # fail MESSAGE LOGFILE...
    local msg=$1; shift
    tail -n 20 "$@" >&2 2>/dev/null || true
    stop_from_pidfile "$DIR/pids" || true
    die "$msg"
}

rm -f "$DIR/run/oauth2-server.pid"
( exec_clean setsid /usr/bin/python3 -B "$DIR/bin/oauth2-server.py" --port "$OAUTH_PORT" \
    --tokens "$DIR/oauth2-tokens.json" --users "$DIR/passwd" \
    --pidfile "$DIR/run/oauth2-server.pid" ) >> "$DIR/log/oauth2-server.log" 2>&1 < /dev/null &
for _ in $(seq 100); do [ -s "$DIR/run/oauth2-server.pid" ] && break; sleep 0.1; done
OAUTH_PID=$(cat "$DIR/run/oauth2-server.pid" 2>/dev/null || true)
pid_alive "$OAUTH_PID" || fail "oauth2-server did not start (log $DIR/log/oauth2-server.log)" "$DIR/log/oauth2-server.log"
record_pid "$DIR/pids" oauth2-server "$OAUTH_PID" "127.0.0.1:$OAUTH_PORT"
wait_accept "$OAUTH_PORT" "$OAUTH_PID" oauth2-server || \
    fail "oauth2-server is not accepting on 127.0.0.1:$OAUTH_PORT" "$DIR/log/oauth2-server.log"

( exec_clean /usr/sbin/dovecot -c "$DIR/dovecot.conf" ) < /dev/null >> "$DIR/log/dovecot-start.log" 2>&1 || \
    fail "dovecot failed to start" "$DIR/log/dovecot-start.log" "$DIR/log/dovecot.log"
for _ in $(seq 100); do [ -s "$DIR/run/master.pid" ] && break; sleep 0.1; done
DOVECOT_PID=$(cat "$DIR/run/master.pid" 2>/dev/null || true)
pid_alive "$DOVECOT_PID" || fail "dovecot master is not running" "$DIR/log/dovecot-start.log" "$DIR/log/dovecot.log"
record_pid "$DIR/pids" dovecot "$DOVECOT_PID" "127.0.0.1:$IMAP_PORT,127.0.0.1:$IMAPS_PORT"
wait_accept "$IMAP_PORT" "$DOVECOT_PID" dovecot && wait_accept "$IMAPS_PORT" "$DOVECOT_PID" dovecot || \
    fail "dovecot is not accepting on 127.0.0.1:$IMAP_PORT / $IMAPS_PORT" "$DIR/log/dovecot.log"

log "started dovecot (pid $DOVECOT_PID) and oauth2-server (pid $OAUTH_PID)"
summary
