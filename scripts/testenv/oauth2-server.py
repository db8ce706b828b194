#!/usr/bin/python3
"""Tiny OAuth2 token introspection / token endpoint for tests (stdlib only).

Binds 127.0.0.1 only.  Tokens come from a JSON file {"token": "user" | null}
(null = a known but inactive/revoked token).  Endpoints:

  POST /introspect          form body token=...      (RFC 7662; Dovecot introspection_mode=post)
  GET  /introspect?token=...                          (introspection_mode=get)
  GET  /introspect  + "Authorization: Bearer ..."     (introspection_mode=auth)
  GET  /tokeninfo?access_token=...                    (same answer, tokeninfo style)
       -> 200 {"active": true, "username": "alice", "email": "alice@localhost", ...}
       -> 200 {"active": false} for unknown / inactive tokens
  POST /token   grant_type=client_credentials (client_id/client_secret in the form
                or HTTP Basic) -> {"access_token": <token of --cc-user>, ...}
                grant_type=password (username, password checked against --users)
  GET  /health  -> {"ok": true}

Every request is logged to stderr (one line).  --pidfile FILE: write the
process id there once the socket is bound (the start script stops it by PID).
"""
import argparse
import base64
import json
import os
import signal
import sys
import time
import urllib.parse
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

ARGS = None


def load_tokens():
    with open(ARGS.tokens, encoding='utf-8') as f:
        return json.load(f)


def load_passwords():
    users = {}
    if not ARGS.users:
        return users
    with open(ARGS.users, encoding='utf-8') as f:
        for line in f:
            p = line.rstrip('\n').split(':')
            if len(p) >= 2 and p[1].upper().startswith('{PLAIN}'):
                users[p[0]] = p[1][7:]
    return users


class Handler(BaseHTTPRequestHandler):
    server_version = 'zrimap-test-oauth2/1.0'
    protocol_version = 'HTTP/1.1'

    def log_message(self, fmt, *args):
        sys.stderr.write('%s %s\n' % (time.strftime('%Y-%m-%d %H:%M:%S'), fmt % args))
        sys.stderr.flush()

    def _send(self, code, obj):
        body = json.dumps(obj).encode()
        self.send_response(code)
        self.send_header('Content-Type', 'application/json')
        self.send_header('Content-Length', str(len(body)))
        self.send_header('Cache-Control', 'no-store')
        self.end_headers()
        self.wfile.write(body)

    def _form(self):
        ln = int(self.headers.get('Content-Length') or 0)
        raw = self.rfile.read(ln).decode('utf-8', 'replace') if ln else ''
        return {k: v[0] for k, v in urllib.parse.parse_qs(raw, keep_blank_values=True).items()}

    def _introspect(self, token):
        tokens = load_tokens()
        user = tokens.get(token) if token else None
        self.log_message('introspect token=%s... -> %s', (token or '')[:12], user or 'inactive')
        if not user:
            return self._send(200, {'active': False})
        now = int(time.time())
        return self._send(200, {
            'active': True, 'username': user, 'email': user + '@localhost', 'sub': user,
            'scope': 'imap mail', 'client_id': ARGS.client_id, 'token_type': 'Bearer',
            'iat': now, 'exp': now + 3600})

    def _bearer(self):
        auth = self.headers.get('Authorization', '')
        return auth[7:].strip() if auth.lower().startswith('bearer ') else None

    def do_GET(self):
        u = urllib.parse.urlsplit(self.path)
        q = {k: v[0] for k, v in urllib.parse.parse_qs(u.query).items()}
        if u.path == '/health':
            return self._send(200, {'ok': True})
        if u.path in ('/introspect', '/tokeninfo'):
            return self._introspect(q.get('token') or q.get('access_token') or self._bearer())
        return self._send(404, {'error': 'not_found'})

    def do_POST(self):
        u = urllib.parse.urlsplit(self.path)
        form = self._form()
        if u.path in ('/introspect', '/tokeninfo'):
            return self._introspect(form.get('token') or form.get('access_token') or self._bearer())
        if u.path == '/token':
            return self._token(form)
        return self._send(404, {'error': 'not_found'})

    def _token(self, form):
        cid, secret = form.get('client_id'), form.get('client_secret')
        auth = self.headers.get('Authorization', '')
        if auth.lower().startswith('basic '):
            try:
                cid, _, secret = base64.b64decode(auth[6:]).decode().partition(':')
                cid, secret = urllib.parse.unquote(cid), urllib.parse.unquote(secret)
            except Exception:  # noqa: BLE001
                pass
        grant = form.get('grant_type')
        tokens = load_tokens()
        if grant == 'client_credentials':
            if cid != ARGS.client_id or secret != ARGS.client_secret:
                self.log_message('token grant=client_credentials client_id=%s -> invalid_client', cid)
                return self._send(401, {'error': 'invalid_client'})
            user = ARGS.cc_user
        elif grant == 'password':
            user = form.get('username')
            if load_passwords().get(user) != form.get('password'):
                self.log_message('token grant=password user=%s -> invalid_grant', user)
                return self._send(400, {'error': 'invalid_grant'})
        else:
            return self._send(400, {'error': 'unsupported_grant_type'})
        tok = next((t for t, uu in tokens.items() if uu == user), None)
        if tok is None:
            return self._send(400, {'error': 'invalid_grant', 'error_description': 'no token for ' + user})
        self.log_message('token grant=%s -> token for %s', grant, user)
        return self._send(200, {'access_token': tok, 'token_type': 'Bearer', 'expires_in': 3600,
                                'scope': form.get('scope') or 'imap mail'})


def main():
    global ARGS
    ap = argparse.ArgumentParser()
    ap.add_argument('--port', type=int, default=14320)
    ap.add_argument('--bind', default='127.0.0.1')
    ap.add_argument('--tokens', required=True)
    ap.add_argument('--users', help='Dovecot passwd-file ({PLAIN} entries) for grant_type=password')
    ap.add_argument('--client-id', default='imaptest-client')
    ap.add_argument('--client-secret', default='imaptest-secret')
    ap.add_argument('--cc-user', default='alice', help='user whose token client_credentials returns')
    ap.add_argument('--pidfile', help='write the process id here after binding')
    ARGS = ap.parse_args()
    os.closerange(3, 4096)      # no inherited descriptors (pipes of the caller)
    if ARGS.bind not in ('127.0.0.1', 'localhost', '::1'):
        sys.exit('refusing to bind %s: loopback only' % ARGS.bind)
    srv = ThreadingHTTPServer((ARGS.bind, ARGS.port), Handler)
    srv.daemon_threads = True
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
    if ARGS.pidfile:
        tmp = ARGS.pidfile + '.tmp'
        with open(tmp, 'w') as f:
            f.write('%d\n' % os.getpid())
        os.replace(tmp, ARGS.pidfile)
    sys.stderr.write('oauth2 test server on http://%s:%d\n' % (ARGS.bind, ARGS.port))
    sys.stderr.flush()
    srv.serve_forever()


if __name__ == '__main__':
    main()
