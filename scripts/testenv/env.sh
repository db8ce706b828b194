# env.sh -- settings of the local test servers, for scripts and tests.
#
#   . scripts/testenv/env.sh          # from the project root, any POSIX shell
#
# Every variable keeps a value already present in the environment, so a caller
# (CTest, a developer's shell) chooses the instance by exporting
# ZRIMAP_TESTENV_DIR and the ports before sourcing this file.  The start/stop
# scripts source it too.  Defaults are meant for manual use and demos; the
# CTest fixtures in tests/integration pick a per-build-tree directory and ports.
#
# Nothing here starts anything or touches the disk.

# Base directory of one test environment.  It holds dovecot/ and sshd/.
# Keep it short (the Dovecot directory must stay <= 60 characters because
# Dovecot puts unix sockets below it) and under a world-searchable parent.
: "${ZRIMAP_TESTENV_DIR:=/tmp/zrimap-testenv}"
: "${ZRIMAP_DOVECOT_DIR:=$ZRIMAP_TESTENV_DIR/dovecot}"
: "${ZRIMAP_SSHD_DIR:=$ZRIMAP_TESTENV_DIR/sshd}"

# Loopback only.  Ports are unprivileged; all of them can be overridden.
ZRIMAP_HOST=127.0.0.1
: "${ZRIMAP_IMAP_PORT:=14310}"     # IMAP, plaintext auth allowed, STARTTLS offered
: "${ZRIMAP_IMAPS_PORT:=14311}"    # IMAP over implicit TLS
: "${ZRIMAP_OAUTH_PORT:=14320}"    # OAuth2 token + introspection HTTP server
: "${ZRIMAP_SSH_PORT:=14330}"      # sshd for tunnelled IMAP (ssh -W / -L)

# TLS: self-signed certificate generated per Dovecot directory
# (CN=localhost, SAN DNS:localhost, IP:127.0.0.1); use it as the CA file.
: "${ZRIMAP_CA_FILE:=$ZRIMAP_DOVECOT_DIR/tls/cert.pem}"

# DIGEST-MD5 realm.  Empty: Dovecot announces realm="" and the digest-uri is
# "imap/".  Non-empty (e.g. localhost): realm="localhost", digest-uri
# "imap/localhost", and the login name may carry @realm.
: "${ZRIMAP_DIGEST_REALM:=}"

# IMAP users (Dovecot passwd-file, stored {PLAIN} so every mechanism works).
ZRIMAP_ALICE_USER=alice;  ZRIMAP_ALICE_PASSWORD='alice-pw'      # seeded mailbox
ZRIMAP_BOB_USER=bob;      ZRIMAP_BOB_PASSWORD='bob-pw'          # for tests that change mail
ZRIMAP_CAROL_USER=carol;  ZRIMAP_CAROL_PASSWORD='sp ace"quo\te' # space, quote, backslash
ZRIMAP_DAVE_USER=dave;    ZRIMAP_DAVE_PASSWORD='dävé-pw'        # UTF-8 password

# OAuth2 (XOAUTH2 / OAUTHBEARER).  Tokens are fixed; the token endpoint hands
# out alice's token for the client-credentials grant.
ZRIMAP_OAUTH_TOKEN_URL=http://127.0.0.1:$ZRIMAP_OAUTH_PORT/token
ZRIMAP_OAUTH_INTROSPECT_URL=http://127.0.0.1:$ZRIMAP_OAUTH_PORT/introspect
ZRIMAP_OAUTH_CLIENT_ID=imaptest-client
ZRIMAP_OAUTH_CLIENT_SECRET=imaptest-secret
ZRIMAP_ALICE_TOKEN=alice-oauth2-token
ZRIMAP_BOB_TOKEN=bob-oauth2-token
ZRIMAP_REVOKED_TOKEN=revoked-oauth2-token

# sshd: a system account with a password and two client keys (no passphrase).
: "${ZRIMAP_SSH_USER:=imaptest}"
: "${ZRIMAP_SSH_PASSWORD:=imaptest-pw}"
ZRIMAP_SSH_KEY_ED25519=$ZRIMAP_SSHD_DIR/client_ed25519
ZRIMAP_SSH_KEY_RSA=$ZRIMAP_SSHD_DIR/client_rsa
ZRIMAP_SSH_KNOWN_HOSTS=$ZRIMAP_SSHD_DIR/known_hosts

# Written by seed-mailbox.py --manifest when the seeding step runs.
: "${ZRIMAP_SEED_MANIFEST:=$ZRIMAP_DOVECOT_DIR/manifest.json}"

export ZRIMAP_TESTENV_DIR ZRIMAP_DOVECOT_DIR ZRIMAP_SSHD_DIR ZRIMAP_HOST \
    ZRIMAP_IMAP_PORT ZRIMAP_IMAPS_PORT ZRIMAP_OAUTH_PORT ZRIMAP_SSH_PORT \
    ZRIMAP_CA_FILE ZRIMAP_DIGEST_REALM \
    ZRIMAP_ALICE_USER ZRIMAP_ALICE_PASSWORD ZRIMAP_BOB_USER ZRIMAP_BOB_PASSWORD \
    ZRIMAP_CAROL_USER ZRIMAP_CAROL_PASSWORD ZRIMAP_DAVE_USER ZRIMAP_DAVE_PASSWORD \
    ZRIMAP_OAUTH_TOKEN_URL ZRIMAP_OAUTH_INTROSPECT_URL \
    ZRIMAP_OAUTH_CLIENT_ID ZRIMAP_OAUTH_CLIENT_SECRET \
    ZRIMAP_ALICE_TOKEN ZRIMAP_BOB_TOKEN ZRIMAP_REVOKED_TOKEN \
    ZRIMAP_SSH_USER ZRIMAP_SSH_PASSWORD ZRIMAP_SSH_KEY_ED25519 ZRIMAP_SSH_KEY_RSA \
    ZRIMAP_SSH_KNOWN_HOSTS ZRIMAP_SEED_MANIFEST
