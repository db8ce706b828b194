#!/usr/bin/env python3
"""check-dovecot.py -- check that the Dovecot test server works as the tests expect.

Reads the same environment as env.sh (ZRIMAP_IMAP_PORT, ZRIMAP_IMAPS_PORT,
ZRIMAP_OAUTH_PORT, ZRIMAP_CA_FILE or ZRIMAP_DOVECOT_DIR, ZRIMAP_DIGEST_REALM)
and talks to 127.0.0.1 only.  Checks, with Python's imaplib and hand-made
SASL messages:

  - greeting and pre-login CAPABILITY list STARTTLS and every mechanism
  - LOGIN (alice; carol's password with space, quote, backslash; wrong password)
  - STARTTLS verified against the generated CA, then AUTHENTICATE PLAIN
  - implicit TLS verified against the CA (by IP and by name localhost),
    CRAM-MD5 over it, and a handshake that must fail without that CA
  - AUTHENTICATE PLAIN with a UTF-8 password, LOGIN mechanism, DIGEST-MD5
    (with the configured realm), NTLMv2 through the external helper
  - OAuth2: client-credentials grant at the token endpoint, XOAUTH2 with the
    token obtained, OAUTHBEARER, and a revoked token refused

--seeded additionally compares alice's mailbox with the manifest written by
seed-mailbox.py (ZRIMAP_SEED_MANIFEST or --manifest).

Prints PASS/FAIL per check and 'N passed, M failed'; exit status 1 on any failure.
"""
import argparse
import base64
import hashlib
import hmac
import imaplib
import json
import os
import re
import ssl
import sys
import urllib.parse
import urllib.request

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import ntlm_crypto as ntlm  # noqa: E402

HOST = '127.0.0.1'
E = os.environ
IMAP_PORT = int(E.get('ZRIMAP_IMAP_PORT') or 14310)
IMAPS_PORT = int(E.get('ZRIMAP_IMAPS_PORT') or 14311)
OAUTH_PORT = int(E.get('ZRIMAP_OAUTH_PORT') or 14320)
DOVECOT_DIR = E.get('ZRIMAP_DOVECOT_DIR') or os.path.join(E.get('ZRIMAP_TESTENV_DIR') or '/tmp/zrimap-testenv',
                                                          'dovecot')
CA_FILE = E.get('ZRIMAP_CA_FILE') or os.path.join(DOVECOT_DIR, 'tls', 'cert.pem')
REALM = E.get('ZRIMAP_DIGEST_REALM', '')
MECHS = ['PLAIN', 'LOGIN', 'CRAM-MD5', 'DIGEST-MD5', 'NTLM', 'XOAUTH2', 'OAUTHBEARER']

RESULTS = []


def check(name, fn):
    try:
        detail = fn()
        RESULTS.append(True)
        print('PASS  %-52s %s' % (name, detail or ''), flush=True)
    except Exception as e:  # noqa: BLE001 -- any failure is a failed check
        RESULTS.append(False)
        print('FAIL  %-52s %s: %s' % (name, type(e).__name__, e), flush=True)


def expect(cond, msg):
    if not cond:
        raise AssertionError(msg)


def ca_ctx():
    expect(os.path.isfile(CA_FILE), 'CA file %s missing' % CA_FILE)
    return ssl.create_default_context(cafile=CA_FILE)


def plain_conn():
    return imaplib.IMAP4(HOST, IMAP_PORT, timeout=15)


def tls_conn(server_name=HOST):
    return imaplib.IMAP4_SSL(server_name, IMAPS_PORT, ssl_context=ca_ctx(), timeout=15)


def login_ok(m, user, pw):
    typ, data = m.login(user, pw)
    expect(typ == 'OK', 'LOGIN %s: %s %s' % (user, typ, data))
    typ, data = m.select('INBOX', readonly=True)
    expect(typ == 'OK', 'SELECT INBOX after login: %s %s' % (typ, data))
    m.logout()
    return 'LOGIN + SELECT OK'


def auth_ok(m, mech, responder):
    typ, data = m.authenticate(mech, responder)
    expect(typ == 'OK', 'AUTHENTICATE %s: %s %s' % (mech, typ, data))
    typ, data = m.select('INBOX', readonly=True)
    expect(typ == 'OK', 'SELECT INBOX after AUTHENTICATE %s: %s %s' % (mech, typ, data))
    m.logout()
    return 'AUTHENTICATE %s + SELECT OK' % mech


def auth_refused(m, mech, responder):
    try:
        typ, data = m.authenticate(mech, responder)
    except imaplib.IMAP4.error as e:
        expect('AUTHENTICATIONFAILED' in str(e) or 'failed' in str(e).lower(), 'unexpected error %s' % e)
        return 'refused: %s' % str(e)[:60]
    finally:
        try:
            m.logout()
        except Exception:  # noqa: BLE001
            pass
    raise AssertionError('AUTHENTICATE %s unexpectedly answered %s %s' % (mech, typ, data))


# ---------------------------------------------------------------- checks
def greeting():
    m = plain_conn()
    w = m.welcome.decode()
    expect(w.startswith('* OK'), 'greeting %r' % w)
    typ, data = m.capability()
    caps = data[0].decode().split()
    missing = [c for c in ['IMAP4rev1', 'STARTTLS'] + ['AUTH=' + x for x in MECHS] if c not in caps]
    expect(not missing, 'missing capabilities %s in %s' % (missing, caps))
    expect('LOGINDISABLED' not in caps, 'LOGINDISABLED advertised')
    m.logout()
    return 'STARTTLS and AUTH=%s advertised' % ','.join(MECHS)


def login_wrong():
    m = plain_conn()
    try:
        m.login('alice', 'not-the-password')
    except imaplib.IMAP4.error as e:
        expect('AUTHENTICATIONFAILED' in str(e), 'unexpected error %s' % e)
        return 'NO [AUTHENTICATIONFAILED]'
    raise AssertionError('wrong password accepted')


def starttls_plain():
    m = plain_conn()
    m.starttls(ca_ctx())
    expect(m.sock.version() in ('TLSv1.2', 'TLSv1.3'), 'TLS version %s' % m.sock.version())
    typ, data = m.capability()
    expect(b'STARTTLS' not in data[0], 'STARTTLS still advertised after STARTTLS')
    version = m.sock.version()
    auth_ok(m, 'PLAIN', lambda _: b'\0bob\0bob-pw')
    return 'verified certificate, %s, AUTHENTICATE PLAIN bob OK' % version


def imaps_cram():
    m = tls_conn()
    version = m.sock.version()
    typ, data = m.login_cram_md5('alice', 'alice-pw')
    expect(typ == 'OK', 'CRAM-MD5: %s %s' % (typ, data))
    typ, data = m.select('INBOX', readonly=True)
    expect(typ == 'OK', 'SELECT INBOX after CRAM-MD5: %s %s' % (typ, data))
    m.logout()
    return 'verified certificate (IP SAN), %s, CRAM-MD5 alice + SELECT OK' % version


def imaps_by_name():
    m = tls_conn('localhost')
    cert = m.sock.getpeercert()
    m.logout()
    return 'verified certificate as localhost, subject %s' % (cert.get('subject'),)


def imaps_untrusted():
    ctx = ssl.create_default_context()      # system CAs only: must not trust ours
    try:
        m = imaplib.IMAP4_SSL(HOST, IMAPS_PORT, ssl_context=ctx, timeout=15)
    except ssl.SSLCertVerificationError as e:
        return 'rejected as expected (%s)' % e.verify_message
    m.logout()
    raise AssertionError('self-signed certificate accepted without the CA file')


def auth_login_mech():
    answers = iter([b'alice', b'alice-pw'])
    return auth_ok(plain_conn(), 'LOGIN', lambda _: next(answers))


def digest_md5():
    state = {}

    def respond(challenge):
        if state:
            expect(challenge.startswith(b'rspauth='), 'second challenge %r' % challenge)
            return b''
        fields = dict(re.findall(r'(\w+)="?([^",]*)"?', challenge.decode()))
        realm = fields.get('realm', '')
        expect(realm == REALM, 'server realm %r, expected %r (ZRIMAP_DIGEST_REALM)' % (realm, REALM))
        user, pw = 'alice', 'alice-pw'
        cnonce = base64.b64encode(os.urandom(12)).decode()
        uri = 'imap/' + realm
        a1 = hashlib.md5(('%s:%s:%s' % (user, realm, pw)).encode()).digest() + \
            (':%s:%s' % (fields['nonce'], cnonce)).encode()
        ha1 = hashlib.md5(a1).hexdigest()
        ha2 = hashlib.md5(('AUTHENTICATE:' + uri).encode()).hexdigest()
        resp = hashlib.md5(('%s:%s:00000001:%s:auth:%s' % (ha1, fields['nonce'], cnonce, ha2)).encode()).hexdigest()
        state['sent'] = True
        return ('username="%s",realm="%s",nonce="%s",cnonce="%s",nc=00000001,qop=auth,'
                'digest-uri="%s",response=%s,charset=utf-8' % (user, realm, fields['nonce'], cnonce, uri,
                                                                resp)).encode()
    return auth_ok(plain_conn(), 'DIGEST-MD5', respond) + ' (realm "%s")' % REALM


def ntlm_v2():
    state = {}

    def respond(challenge):
        if not state:
            state['t1'] = True
            return ntlm.make_type1()
        return ntlm.client_type3(challenge, 'alice', 'alice-pw', version=2)
    return auth_ok(plain_conn(), 'NTLM', respond) + ' (NTLMv2, external helper)'


def plain_utf8():
    return auth_ok(plain_conn(), 'PLAIN', lambda _: '\0dave\0dävé-pw'.encode()) + ' (dave, UTF-8 password)'


def token_grant():
    data = urllib.parse.urlencode({'grant_type': 'client_credentials', 'client_id': 'imaptest-client',
                                   'client_secret': 'imaptest-secret'}).encode()
    with urllib.request.urlopen('http://127.0.0.1:%d/token' % OAUTH_PORT, data, timeout=10) as r:
        body = json.load(r)
    return body['access_token']


def xoauth2():
    tok = token_grant()
    expect(tok == 'alice-oauth2-token', 'token endpoint returned %r' % tok)
    ir = 'user=alice\x01auth=Bearer %s\x01\x01' % tok
    return auth_ok(plain_conn(), 'XOAUTH2', lambda _: ir.encode()) + ' with token from /token'


def oauthbearer():
    ir = 'n,a=alice,\x01host=127.0.0.1\x01port=%d\x01auth=Bearer alice-oauth2-token\x01\x01' % IMAP_PORT
    return auth_ok(tls_conn(), 'OAUTHBEARER', lambda _: ir.encode()) + ' over implicit TLS'


def xoauth2_revoked():
    steps = iter([b'user=alice\x01auth=Bearer revoked-oauth2-token\x01\x01', b''])
    return auth_refused(plain_conn(), 'XOAUTH2', lambda _: next(steps))


def login_carol():
    return login_ok(plain_conn(), 'carol', 'sp ace"quo\\te')


def seeded(manifest_path):
    with open(manifest_path, encoding='utf-8') as f:
        manifest = json.load(f)
    expect(manifest, 'empty manifest')
    by_folder = {}
    for rec in manifest:
        by_folder.setdefault(rec['folder_mutf7'], []).append(rec)
    m = plain_conn()
    m.login('alice', 'alice-pw')
    for box, recs in by_folder.items():
        typ, data = m.select('"%s"' % box.replace('\\', '\\\\').replace('"', '\\"'), readonly=True)
        expect(typ == 'OK', 'SELECT %s: %s' % (box, data))
        expect(int(data[0]) == len(recs), '%s has %s messages, manifest %d' % (box, data[0], len(recs)))
        typ, data = m.uid('SEARCH', None, 'ALL')
        uids = sorted(int(x) for x in data[0].split())
        expect(uids == sorted(r['uid'] for r in recs), '%s UIDs %s differ from manifest' % (box, uids))
        first = recs[0]
        typ, data = m.uid('FETCH', str(first['uid']), '(RFC822.SIZE BODY.PEEK[HEADER.FIELDS (MESSAGE-ID)])')
        text = b''.join(x[1] if isinstance(x, tuple) else b'' for x in data).decode('utf-8', 'replace')
        expect(first['message_id'] in text, '%s UID %d Message-ID not %s' % (box, first['uid'], first['message_id']))
        size = int(re.search(rb'RFC822\.SIZE (\d+)', data[0][0]).group(1))
        expect(size == first['size'], '%s UID %d size %d, manifest %d' % (box, first['uid'], size, first['size']))
    m.logout()
    inbox = by_folder.get('INBOX', [])
    expect(len(inbox) == 10, 'manifest lists %d INBOX messages, expected 10' % len(inbox))
    return '%d folders, %d messages match the manifest' % (len(by_folder), len(manifest))


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument('--seeded', action='store_true', help='only compare alice\'s mailbox with the seed manifest')
    ap.add_argument('--manifest', default=E.get('ZRIMAP_SEED_MANIFEST') or os.path.join(DOVECOT_DIR,
                                                                                         'manifest.json'))
    a = ap.parse_args()
    print('Dovecot test server: imap 127.0.0.1:%d  imaps 127.0.0.1:%d  oauth2 127.0.0.1:%d  CA %s'
          % (IMAP_PORT, IMAPS_PORT, OAUTH_PORT, CA_FILE), flush=True)
    if a.seeded:
        check('seeded mailbox matches %s' % os.path.basename(a.manifest), lambda: seeded(a.manifest))
    else:
        check('greeting + CAPABILITY (port %d)' % IMAP_PORT, greeting)
        check('LOGIN alice', lambda: login_ok(plain_conn(), 'alice', 'alice-pw'))
        check('LOGIN carol (space, quote, backslash)', login_carol)
        check('LOGIN wrong password refused', login_wrong)
        check('STARTTLS + AUTHENTICATE PLAIN', starttls_plain)
        check('implicit TLS (port %d) + CRAM-MD5' % IMAPS_PORT, imaps_cram)
        check('implicit TLS, certificate name localhost', imaps_by_name)
        check('implicit TLS without the CA file fails', imaps_untrusted)
        check('AUTHENTICATE LOGIN', auth_login_mech)
        check('AUTHENTICATE PLAIN UTF-8 password', plain_utf8)
        check('AUTHENTICATE DIGEST-MD5', digest_md5)
        check('AUTHENTICATE NTLM', ntlm_v2)
        check('OAuth2 /token + AUTHENTICATE XOAUTH2', xoauth2)
        check('AUTHENTICATE OAUTHBEARER', oauthbearer)
        check('AUTHENTICATE XOAUTH2 revoked token refused', xoauth2_revoked)
    failed = RESULTS.count(False)
    print('%d passed, %d failed' % (RESULTS.count(True), failed))
    return 1 if failed or not RESULTS else 0


if __name__ == '__main__':
    sys.exit(main())
