#!/bin/bash
# check-sshd.sh [SSHDIR] -- check that the test sshd works as the tests expect.
#
# Uses the settings of env.sh (ZRIMAP_SSHD_DIR, ZRIMAP_SSH_PORT, ZRIMAP_SSH_USER,
# ZRIMAP_SSH_PASSWORD, ZRIMAP_IMAP_PORT).  Checks, all against 127.0.0.1:
#   - the SSH banner
#   - login with each client key, host key verified against DIR/known_hosts
#   - login with the password (through SSH_ASKPASS, no extra tools)
#   - a wrong password and an unknown host key are refused
#   - with --imap: ssh -W 127.0.0.1:$ZRIMAP_IMAP_PORT reaches the test Dovecot,
#     whose greeting arrives through the tunnel and LOGIN alice succeeds
# Prints PASS/FAIL per check and 'N passed, M failed'; exit status 1 on any failure.
set -uo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
IMAP=0
ARGS=()
for a in "$@"; do
    case "$a" in
        --imap) IMAP=1 ;;
        -*) echo "usage: $0 [--imap] [SSHDIR]" >&2; exit 2 ;;
        *) ARGS+=("$a") ;;
    esac
done
[ ${#ARGS[@]} -le 1 ] || { echo "usage: $0 [--imap] [SSHDIR]" >&2; exit 2; }
if [ ${#ARGS[@]} = 1 ]; then ZRIMAP_SSHD_DIR=${ARGS[0]}; fi
. "$HERE/env.sh"
S=$ZRIMAP_SSHD_DIR
PORT=$ZRIMAP_SSH_PORT
USER_AT=$ZRIMAP_SSH_USER@127.0.0.1

pass=0; fail=0
ok()  { pass=$((pass + 1)); echo "PASS  $1"; }
bad() { fail=$((fail + 1)); echo "FAIL  $1"; }

TMP=$(mktemp -d)
trap 'rm -rf "$TMP"' EXIT
# -F /dev/null: ignore the caller's ~/.ssh/config.
BASE=(ssh -F /dev/null -p "$PORT" -o ConnectTimeout=10 -o StrictHostKeyChecking=yes
      -o UserKnownHostsFile="$S/known_hosts" -o GlobalKnownHostsFile=/dev/null -o LogLevel=ERROR)
KEYOPTS=(-o BatchMode=yes -o IdentitiesOnly=yes -o PasswordAuthentication=no)

echo "sshd test server: 127.0.0.1:$PORT, directory $S"

# 1. banner
banner=$(timeout 10 bash -c "exec 3<>/dev/tcp/127.0.0.1/$PORT; head -n 1 <&3" 2>&1 | tr -d '\r')
[[ "$banner" == SSH-2.0-OpenSSH* ]] && ok "banner: $banner" || bad "banner: '$banner'"

# 2. key logins with strict host key checking
for k in ed25519 rsa; do
    out=$(timeout 30 "${BASE[@]}" "${KEYOPTS[@]}" -i "$S/client_$k" "$USER_AT" 'echo key-login-ok; id -un' 2>&1)
    if grep -q key-login-ok <<<"$out" && grep -qx "$ZRIMAP_SSH_USER" <<<"$out"; then
        ok "key login ($k), host key verified"
    else
        bad "key login ($k): $out"
    fi
done

# 3. password login (SSH_ASKPASS with SSH_ASKPASS_REQUIRE=force needs no terminal)
printf '#!/bin/sh\nprintf "%%s\\n" "$ZRIMAP_TEST_PW"\n' > "$TMP/askpass"
chmod 700 "$TMP/askpass"
pw_login() {  # pw_login PASSWORD
    ZRIMAP_TEST_PW=$1 SSH_ASKPASS="$TMP/askpass" SSH_ASKPASS_REQUIRE=force DISPLAY=none \
        timeout 30 "${BASE[@]}" -o PreferredAuthentications=password -o PubkeyAuthentication=no \
        -o NumberOfPasswordPrompts=1 "$USER_AT" 'echo pw-login-ok' < /dev/null 2>&1
}
out=$(pw_login "$ZRIMAP_SSH_PASSWORD")
grep -q pw-login-ok <<<"$out" && ok "password login" || bad "password login: $out"

out=$(pw_login "wrong-$ZRIMAP_SSH_PASSWORD"); rc=$?
if [ $rc -ne 0 ] && ! grep -q pw-login-ok <<<"$out" && grep -qi 'denied' <<<"$out"; then
    ok "wrong password refused"
else
    bad "wrong password not refused (rc=$rc): $out"
fi

# 4. an unknown host key is refused (strict checking against an empty known_hosts)
: > "$TMP/empty_known_hosts"
out=$(timeout 30 ssh -F /dev/null -p "$PORT" -o ConnectTimeout=10 -o StrictHostKeyChecking=yes \
      -o UserKnownHostsFile="$TMP/empty_known_hosts" -o GlobalKnownHostsFile=/dev/null \
      "${KEYOPTS[@]}" -i "$S/client_ed25519" "$USER_AT" 'echo should-not-run' 2>&1); rc=$?
if [ $rc -ne 0 ] && grep -qi 'host key verification failed' <<<"$out"; then
    ok "unknown host key refused"
else
    bad "unknown host key not refused (rc=$rc): $out"
fi

# 5. tunnel to the test Dovecot
if [ $IMAP = 1 ]; then
    out=$(ZRIMAP_SSH_CMD="$(printf '%q ' "${BASE[@]}" "${KEYOPTS[@]}" -i "$S/client_ed25519" \
              -W "127.0.0.1:$ZRIMAP_IMAP_PORT" "$USER_AT")" timeout 60 python3 - <<'EOF' 2>&1
import os, shlex, subprocess, sys
p = subprocess.Popen(shlex.split(os.environ['ZRIMAP_SSH_CMD']), stdin=subprocess.PIPE,
                     stdout=subprocess.PIPE, stderr=subprocess.PIPE)
greeting = p.stdout.readline().decode(errors='replace').rstrip()
print('greeting:', greeting[:60])
p.stdin.write(b'a1 LOGIN alice alice-pw\r\n'); p.stdin.flush()
while True:
    line = p.stdout.readline().decode(errors='replace').rstrip()
    if not line or line.startswith('a1 '):
        break
print('login:', line[:40])
p.stdin.write(b'a2 LOGOUT\r\n'); p.stdin.close()
p.wait(timeout=20)
ok = greeting.startswith('* OK') and line.startswith('a1 OK')
if not ok:
    print('ssh stderr:', p.stderr.read().decode(errors='replace').strip())
sys.exit(0 if ok else 1)
EOF
    ); rc=$?
    [ $rc = 0 ] && ok "ssh -W 127.0.0.1:$ZRIMAP_IMAP_PORT: $(tr '\n' ' ' <<<"$out")" \
        || bad "ssh -W 127.0.0.1:$ZRIMAP_IMAP_PORT: $out"
fi

echo "$pass passed, $fail failed"
[ $fail -eq 0 ] && [ $pass -gt 0 ]
