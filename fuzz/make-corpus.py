#!/usr/bin/env python3
"""make-corpus.py -- writes the seed corpora in fuzz/corpus/<target>/.

Two sources:
  - hand-written responses after the examples of RFC 3501 (and RFC 2831 for
    DIGEST-MD5), always written;
  - responses captured from the Dovecot test server (scripts/testenv/
    start-dovecot.sh, then seed-mailbox.py), written with --capture. It talks
    to 127.0.0.1 on ZRIMAP_IMAP_PORT only and changes only bob's mailbox.

Each file is in the input format of its target (see the comment at the top
of each fuzz_*.cpp). The first command of an engine session is tagged
"aaab", so the captured commands use that tag too.

  python3 fuzz/make-corpus.py [--capture]
"""
import argparse
import base64
import hashlib
import os
import re
import socket
import struct
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
CORPUS = os.path.join(HERE, 'corpus')
sys.path.insert(0, os.path.join(HERE, '..', 'scripts', 'testenv'))

# Operation numbers of fuzz_collectors.cpp.
OP = dict(noop=0, select=1, search=2, fetch_summaries=3, fetch_msg_summary=4, fetch_attachment=5, append=6,
          idle=7, logout=8, login=9, auth_plain=10, xoauth2=11, cram_md5=12, capability=13, status_list=14,
          raw=15, fetch_strategy=16, ntlm=17, sort=18)

written = {}


def put(target, name, data):
    if isinstance(data, str):
        data = data.encode('utf-8')
    d = os.path.join(CORPUS, target)
    os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, name), 'wb') as f:
        f.write(data)
    written[target] = written.get(target, 0) + 1


def lit(b):
    if isinstance(b, str):
        b = b.encode()
    return b'{%d}\r\n' % len(b) + b


# ---------------------------------------------------------------------------
# RFC 3501 examples

RFC_BODYSTRUCTURE = (
    b'* 4 FETCH (BODYSTRUCTURE (("TEXT" "PLAIN" ("CHARSET" "US-ASCII") NIL NIL "7BIT" 1152 23)'
    b'("TEXT" "PLAIN" ("CHARSET" "US-ASCII" "NAME" "cc.diff") "<960723163407.20117h@cac.washington.edu>" '
    b'"Compiler diff" "BASE64" 4554 73) "MIXED"))\r\n')
RFC_BODY_SINGLE = b'* 12 FETCH (BODY ("TEXT" "PLAIN" ("CHARSET" "US-ASCII") NIL NIL "7BIT" 3028 92))\r\n'
RFC_MESSAGE = (b'Date: Wed, 17 Jul 1996 02:23:25 -0700 (PDT)\r\n'
               b'From: Terry Gray <gray@cac.washington.edu>\r\n'
               b'Subject: IMAP4rev1 WG mtg summary and minutes\r\n'
               b'To: imap@cac.washington.edu\r\n'
               b'Message-Id: <B27397-0100000@cac.washington.edu>\r\n'
               b'MIME-Version: 1.0\r\n'
               b'Content-Type: TEXT/PLAIN; CHARSET=US-ASCII\r\n\r\n'
               b'Minutes of the meeting.\r\n')


def rfc_seeds():
    select = (b'* 172 EXISTS\r\n* 1 RECENT\r\n* OK [UNSEEN 12] Message 12 is first unseen\r\n'
              b'* OK [UIDVALIDITY 3857529045] UIDs valid\r\n* OK [UIDNEXT 4392] Predicted next UID\r\n'
              b'* FLAGS (\\Answered \\Flagged \\Deleted \\Seen \\Draft)\r\n'
              b'* OK [PERMANENTFLAGS (\\Deleted \\Seen \\*)] Limited\r\n'
              b'aaab OK [READ-WRITE] SELECT completed\r\n')
    c = 'fuzz_collectors'
    put(c, 'rfc-select', bytes([OP['select'], 0]) + select)
    put(c, 'rfc-examine', bytes([OP['select'], 4]) + select.replace(b'READ-WRITE', b'READ-ONLY'))
    put(c, 'rfc-noop', bytes([OP['noop'], 8]) + b'* 22 EXPUNGE\r\n* 23 EXISTS\r\n* 3 RECENT\r\n'
        b'* 14 FETCH (FLAGS (\\Seen \\Deleted))\r\naaab OK NOOP completed\r\naaac OK NOOP completed\r\n')
    put(c, 'rfc-search', bytes([OP['search'], 1]) + b'* SEARCH 2 84 882\r\naaab OK SEARCH completed\r\n')
    put(c, 'rfc-search-status-on-line', bytes([OP['search'], 0]) + b'* SEARCH 2 5 aaab OK SEARCH completed\r\n')
    put(c, 'rfc-capability', bytes([OP['capability'], 2]) +
        b'* CAPABILITY IMAP4rev1 STARTTLS AUTH=GSSAPI LOGINDISABLED\r\naaab OK CAPABILITY completed\r\n')
    put(c, 'rfc-logout', bytes([OP['logout'], 0]) + b'* BYE IMAP4rev1 Server logging out\r\naaab OK LOGOUT completed\r\n')
    put(c, 'rfc-login', bytes([OP['login'], 0]) + b'aaab OK LOGIN completed\r\n')
    put(c, 'rfc-login-no', bytes([OP['login'], 8]) + b'aaab NO LOGIN failed\r\naaac BAD what\r\n')
    put(c, 'rfc-status-list', bytes([OP['status_list'], 0]) +
        b'* STATUS blurdybloop (MESSAGES 231 UIDNEXT 44292)\r\naaab OK STATUS completed\r\n'
        b'* LIST (\\Noselect) "/" ~/Mail/foo\r\n* LIST () "/" ~/Mail/meetings\r\n'
        b'* LIST () "/" {9}\r\nwith\r\nCRLF\r\naaac OK LIST completed\r\n')
    put(c, 'rfc-append', bytes([OP['append'], 0]) + b'+ Ready for literal data\r\naaab OK APPEND completed\r\n')
    put(c, 'rfc-append-refused', bytes([OP['append'], 0]) + b'aaab NO [TRYCREATE] no such mailbox\r\n')
    put(c, 'rfc-idle', bytes([OP['idle'], 1]) + b'+ idling\r\n* 4 EXISTS\r\n* 2 EXPUNGE\r\n'
        b'* 3 FETCH (FLAGS (\\Seen) UID 7)\r\n* 1 RECENT\r\naaab OK IDLE terminated\r\n')
    put(c, 'rfc-fetch-summaries', bytes([OP['fetch_summaries'], 4]) + RFC_BODYSTRUCTURE.replace(
        b'(BODYSTRUCTURE', b'(UID 4 FLAGS (\\Seen) RFC822.SIZE 5960 BODYSTRUCTURE') + b'aaab OK FETCH completed\r\n')
    put(c, 'rfc-fetch-msg-summary', bytes([OP['fetch_msg_summary'], 0]) + RFC_BODYSTRUCTURE +
        b'aaab OK FETCH completed\r\n')
    put(c, 'rfc-fetch-attachment', bytes([OP['fetch_attachment'], 0]) + b'* 1 FETCH (BODY[2] ' + lit('R0lGODdh') +
        b')\r\naaab OK FETCH completed\r\n')
    put(c, 'rfc-strategy', bytes([OP['fetch_strategy'], 0]) + RFC_BODYSTRUCTURE.replace(b'* 4', b'* 1') +
        b'aaab OK FETCH completed\r\n* 1 FETCH (FLAGS (\\Seen) INTERNALDATE "17-Jul-1996 02:44:25 -0700" '
        b'BODY[HEADER] ' + lit(b'Subject: x\r\nContent-Type: multipart/mixed; boundary="b"\r\n\r\n') +
        b' BODY[1.MIME] ' + lit(b'Content-Type: text/plain\r\n\r\n') + b' BODY[1] ' + lit(b'hello\r\n') +
        b')\r\naaac OK FETCH completed\r\n')
    put(c, 'rfc-raw', bytes([OP['raw'], 3]) + b'aaab OK NOOP completed\r\n')
    put(c, 'rfc-sort', bytes([OP['sort'], 0]) + b'* SORT 2 3 6\r\naaab OK SORT completed\r\n')
    put(c, 'rfc-auth-plain', bytes([OP['auth_plain'], 0]) + b'+ \r\naaab OK AUTHENTICATE completed\r\n')
    # RFC 2195's example challenge.
    put(c, 'rfc-cram-md5', bytes([OP['cram_md5'], 0]) +
        b'+ PDE4OTYuNjk3MTcwOTUyQHBvc3RvZmZpY2UucmVzdG9uLm1jaS5uZXQ+\r\naaab OK CRAM authentication successful\r\n')
    put(c, 'rfc-xoauth2-refused', bytes([OP['xoauth2'], 0]) +
        b'+ eyJzdGF0dXMiOiI0MDEiLCJzY2hlbWVzIjoiYmVhcmVyIiwic2NvcGUiOiJodHRwczovL21haWwuZ29vZ2xlLmNvbS8ifQ==\r\n'
        b'aaab NO SASL authentication failed\r\n')

    w = 'fuzz_fetch_whole'
    put(w, 'rfc-body', b'\x00* 12 FETCH (FLAGS (\\Seen) INTERNALDATE "17-Jul-1996 02:44:25 -0700" RFC822.SIZE ' +
        str(len(RFC_MESSAGE)).encode() + b' BODY[] ' + lit(RFC_MESSAGE) + b')\r\naaab OK FETCH completed\r\n')
    put(w, 'rfc-flags-after', b'\x04* 12 FETCH (BODY[] ' + lit(RFC_MESSAGE) +
        b' FLAGS (\\Seen))\r\naaab OK FETCH completed\r\naaac OK NOOP completed\r\n')
    put(w, 'rfc-no-message', b'\x00aaab OK FETCH completed\r\n')
    put(w, 'rfc-rfc822', b'\x01* 12 FETCH (RFC822 ' + lit(RFC_MESSAGE) + b')\r\naaab OK FETCH completed\r\n')

    p = 'fuzz_fetch_parts'
    top = b'Subject: x\r\nContent-Type: multipart/mixed; boundary="XX"\r\n\r\n'
    put(p, 'rfc-parts', b'\x00* 7 FETCH (FLAGS (\\Seen) INTERNALDATE "17-Jul-1996 02:44:25 -0700" BODY[HEADER] ' +
        lit(top) + b' BODY[1.MIME] ' + lit(b'Content-Type: text/plain\r\n\r\n') + b' BODY[1] ' + lit(b'hello\r\n') +
        b')\r\naaab OK FETCH completed\r\n')
    put(p, 'rfc-parts-reversed', b'\x01* 7 FETCH (BODY[HEADER] ' + lit(top) + b' BODY[1] ' + lit(b'hello\r\n') +
        b' BODY[1.MIME] ' + lit(b'Content-Type: text/plain\r\n\r\n') + b')\r\naaab OK FETCH completed\r\n')
    put(p, 'rfc-parts-nil', b'\x02* 7 FETCH (BODY[HEADER] ' + lit(top) +
        b' BODY[1.MIME] NIL BODY[1] NIL)\r\naaab OK FETCH completed\r\n')
    put(p, 'rfc-parts-quoted', b'\x00* 7 FETCH (BODY[HEADER] ' + lit(top) +
        b' BODY[1.MIME] {0}\r\n BODY[1] "short text")\r\naaab OK FETCH completed\r\n')
    put(p, 'rfc-parts-2', b'\x04* 7 FETCH (BODY[HEADER] ' + lit(top) + b' BODY[2.MIME] ' +
        lit(b'Content-Type: image/gif\r\n\r\n') + b' BODY[2] ' + lit(b'R0lGODdh') + b' UID 9)\r\n'
        b'aaab OK FETCH completed\r\n')

    f = 'fuzz_flags_and_size'
    put(f, 'rfc-1', b'* 12 FETCH (FLAGS (\\Seen) INTERNALDATE "17-Jul-1996 02:44:25 -0700" BODY[] {3417}\r\n')
    put(f, 'rfc-2', b'* 12 FETCH (FLAGS () BODY[] NIL)\r\n')
    put(f, 'rfc-3', b'* 12 FETCH (BODY[] {-1}\r\n')

    i = 'fuzz_idle_line'
    for n, line in enumerate([b'* 4 EXISTS\r\n', b'* 2 EXPUNGE\r\n', b'* 1 RECENT\r\n',
                              b'* 3 FETCH (FLAGS (\\Seen \\Flagged) UID 7)\r\n', b'* 3 FETCH (UID 7 FLAGS ())\r\n',
                              b'* OK Still here\r\n', b'* BYE idle too long\r\n']):
        put(i, 'rfc-%d' % n, line)

    b = 'fuzz_bodystructure'
    put(b, 'rfc-mixed', RFC_BODYSTRUCTURE)
    put(b, 'rfc-single', RFC_BODY_SINGLE)
    put(b, 'rfc-two-lines', b'* 1 FETCH (FLAGS (\\Seen))\r\n\x00' + RFC_BODYSTRUCTURE)
    put(b, 'rfc-literal', b'* 3 FETCH (UID 9 BODYSTRUCTURE ("text" "plain" ("name" ' + lit('a "b".txt') +
        b') NIL NIL "7bit" 10 1 NIL ("attachment" ("filename*" "utf-8\'\'%E2%82%AC.txt")) NIL NIL))\r\n')
    put(b, 'rfc-message', b'* 5 FETCH (BODYSTRUCTURE ("message" "rfc822" NIL NIL NIL "7bit" 900 '
        b'("Wed, 17 Jul 1996 02:23:25 -0700" "hi" (("Terry" NIL "gray" "cac.washington.edu")) NIL NIL NIL NIL NIL '
        b'NIL "<id@x>") (("text" "plain" NIL NIL NIL "7bit" 10 1)("text" "html" NIL NIL NIL "7bit" 20 1) '
        b'"alternative") 30 NIL NIL NIL NIL))\r\n')

    m = 'fuzz_mime_header'
    put(m, 'rfc-content-type', b'Content-Type\n' + RFC_MESSAGE)
    put(m, 'rfc-boundary', b'boundary\nSubject: x\r\nContent-Type: multipart/mixed;\r\n\tboundary="=_b1; x";'
        b' charset=utf-8\r\n\r\nbody\r\n')

    put('fuzz_base64', 'rfc-cram', b'PDE4OTYuNjk3MTcwOTUyQHBvc3RvZmZpY2UucmVzdG9uLm1jaS5uZXQ+')
    put('fuzz_base64', 'rfc-padding', b'YQ==\r\nYWI=')
    put('fuzz_base64', 'rfc-lines', b'R0lGODlhAQABAIAAAP///wAAACH5BAEAAAAALAAAAAABAAEAAAICRAEAOw==\r\n')

    # RFC 2831's example challenge and rspauth.
    challenge = (b'realm="elwood.innosoft.com",nonce="OA6MG9tEQGm2hh",qop="auth",algorithm=md5-sess,'
                 b'charset=utf-8')
    rspauth = base64.b64encode(b'rspauth=ea40f60335c427b5527b84dbabcdfffd')
    put('fuzz_digest_md5', 'rfc-2831', b'\x00' + struct.pack('<H', len(challenge)) + challenge +
        b'+ ' + rspauth + b'\r\naaab OK DIGEST-MD5 authentication successful\r\n')
    put('fuzz_digest_md5', 'rfc-2831-md5', b'\x01' + struct.pack('<H', len(challenge)) +
        challenge.replace(b'md5-sess', b'MD5') + b'aaab NO bad\r\n')


# ---------------------------------------------------------------------------
# Dovecot

class Conn:
    def __init__(self, port):
        self.s = socket.create_connection(('127.0.0.1', port), timeout=15)
        self.buf = b''
        self.greeting = self.line()

    def fill(self):
        data = self.s.recv(65536)
        if not data:
            raise EOFError('server closed')
        self.buf += data

    def line(self):
        while b'\r\n' not in self.buf:
            self.fill()
        i = self.buf.index(b'\r\n') + 2
        out, self.buf = self.buf[:i], self.buf[i:]
        return out

    def take(self, n):
        while len(self.buf) < n:
            self.fill()
        out, self.buf = self.buf[:n], self.buf[n:]
        return out

    def logical(self):
        """One response line with its literals, as raw bytes."""
        out = self.line()
        while True:
            m = re.search(rb'\{(\d+)\}\r\n$', out)
            if not m:
                return out
            out += self.take(int(m.group(1)))
            out += self.line()

    def send(self, data):
        if isinstance(data, str):
            data = data.encode()
        self.s.sendall(data)

    def until(self, tag):
        """Raw bytes up to and including the tagged completion."""
        out = b''
        while True:
            ln = self.logical()
            out += ln
            if ln.startswith(tag.encode() + b' '):
                return out

    def cmd(self, tag, text):
        self.send('%s %s\r\n' % (tag, text))
        return self.until(tag)

    def close(self):
        self.s.close()


def logged_in(port, user='alice', pw='alice-pw', select=None):
    c = Conn(port)
    c.cmd('L001', 'LOGIN "%s" "%s"' % (user, pw))
    if select:
        c.cmd('L002', 'SELECT "%s"' % select)
    return c


def append_one(port, user, pw, mailbox='INBOX'):
    c = logged_in(port, user, pw)
    msg = b'Subject: pushed\r\nFrom: a@b\r\n\r\nhello\r\n'
    c.send('X1 APPEND "%s" {%d}\r\n' % (mailbox, len(msg)))
    c.line()
    c.send(msg + b'\r\n')
    c.until('X1')
    c.cmd('X2', 'LOGOUT')
    c.close()


def capture(port):
    c = 'fuzz_collectors'
    greet = Conn(port)
    put(c, 'dovecot-capability', bytes([OP['capability'], 0]) + greet.cmd('aaab', 'CAPABILITY'))
    put(c, 'dovecot-login', bytes([OP['login'], 0]) + greet.cmd('aaab', 'LOGIN "alice" "alice-pw"'))
    greet.close()
    bad = Conn(port)
    put(c, 'dovecot-login-refused', bytes([OP['login'], 8]) + bad.cmd('aaab', 'LOGIN "alice" "wrong"') +
        bad.cmd('aaac', 'NOOP'))
    bad.close()

    a = logged_in(port)
    put(c, 'dovecot-select', bytes([OP['select'], 0]) + a.cmd('aaab', 'SELECT "INBOX"'))
    put(c, 'dovecot-examine', bytes([OP['select'], 4]) + a.cmd('aaab', 'EXAMINE "INBOX"'))
    a.cmd('L003', 'SELECT "INBOX"')
    put(c, 'dovecot-search', bytes([OP['search'], 4]) + a.cmd('aaab', 'UID SEARCH CHARSET UTF-8 UNSEEN'))
    put(c, 'dovecot-sort', bytes([OP['sort'], 4]) + a.cmd('aaab', 'UID SORT (DATE) UTF-8 ALL'))
    put(c, 'dovecot-fetch-summaries', bytes([OP['fetch_summaries'], 4]) +
        a.cmd('aaab', 'UID FETCH 1:* (UID FLAGS RFC822.SIZE BODYSTRUCTURE)'))
    for uid in (1, 4, 5, 6, 7):
        put(c, 'dovecot-fetch-msg-summary-%d' % uid, bytes([OP['fetch_msg_summary'], 4]) +
            a.cmd('aaab', 'UID FETCH %d (UID BODYSTRUCTURE)' % uid))
    att = a.cmd('aaab', 'UID FETCH 5 (BODY.PEEK[2])')
    if len(att) < 6000:
        put(c, 'dovecot-fetch-attachment', bytes([OP['fetch_attachment'], 4]) + att)
    put(c, 'dovecot-fetch-attachment-small', bytes([OP['fetch_attachment'], 4]) +
        a.cmd('aaab', 'UID FETCH 4 (BODY.PEEK[2])'))
    put(c, 'dovecot-status-list', bytes([OP['status_list'], 0]) +
        a.cmd('aaab', 'STATUS "INBOX" (MESSAGES RECENT UIDNEXT UIDVALIDITY UNSEEN)') + a.cmd('aaac', 'LIST "" "*"'))
    put(c, 'dovecot-noop', bytes([OP['noop'], 0]) + a.cmd('aaab', 'NOOP'))
    put(c, 'dovecot-raw', bytes([OP['raw'], 0]) + a.cmd('aaab', 'NOOP'))
    # The strategy: the structure, then the parts of a multipart/mixed message.
    put(c, 'dovecot-strategy-mixed', bytes([OP['fetch_strategy'], 4]) +
        a.cmd('aaab', 'UID FETCH 4 (UID BODYSTRUCTURE)') +
        a.cmd('aaac', 'UID FETCH 4 (FLAGS INTERNALDATE BODY.PEEK[HEADER] BODY.PEEK[1.MIME] BODY.PEEK[1])'))
    put(c, 'dovecot-strategy-plain', bytes([OP['fetch_strategy'], 4]) +
        a.cmd('aaab', 'UID FETCH 1 (UID BODYSTRUCTURE)') +
        a.cmd('aaac', 'UID FETCH 1 (FLAGS INTERNALDATE BODY.PEEK[])'))

    w = 'fuzz_fetch_whole'
    for uid in (1, 2, 3, 4, 6, 7):
        put(w, 'dovecot-uid-%d' % uid, b'\x00' + a.cmd('aaab', 'UID FETCH %d (FLAGS INTERNALDATE BODY.PEEK[])' % uid))
    put(w, 'dovecot-missing', b'\x00' + a.cmd('aaab', 'UID FETCH 999 (FLAGS INTERNALDATE BODY.PEEK[])'))

    p = 'fuzz_fetch_parts'
    for uid, opt, part in ((4, 0, '1'), (5, 0, '1'), (7, 0, '1'), (6, 4, '2'), (5, 4, '2')):
        resp = a.cmd('aaab', 'UID FETCH %d (FLAGS INTERNALDATE BODY.PEEK[HEADER] BODY.PEEK[%s.MIME] BODY.PEEK[%s])'
                     % (uid, part, part))
        if len(resp) < 8000:
            put(p, 'dovecot-uid-%d-part-%s' % (uid, part), bytes([opt]) + resp)

    f = 'fuzz_flags_and_size'
    b = 'fuzz_bodystructure'
    m = 'fuzz_mime_header'
    for uid in range(1, 11):
        whole = a.cmd('aaab', 'UID FETCH %d (FLAGS INTERNALDATE BODY.PEEK[])' % uid)
        first = whole.split(b'\r\n', 1)[0] + b'\r\n'
        put(f, 'dovecot-uid-%d' % uid, first)
        bs = a.cmd('aaab', 'UID FETCH %d (UID RFC822.SIZE FLAGS BODYSTRUCTURE)' % uid)
        put(b, 'dovecot-uid-%d' % uid, bs.split(b'\r\naaab ', 1)[0] + b'\r\n')
        hdr = a.cmd('aaab', 'UID FETCH %d (BODY.PEEK[HEADER])' % uid)
        mm = re.search(rb'\{(\d+)\}\r\n', hdr)
        if mm:
            header = hdr[mm.end():mm.end() + int(mm.group(1))]
            put(m, 'dovecot-uid-%d' % uid, b'Content-Type\n' + header)
            put(m, 'dovecot-uid-%d-subject' % uid, b'subject\n' + header)
    put(b, 'dovecot-body', a.cmd('aaab', 'UID FETCH 5 (BODY)').split(b'\r\naaab ', 1)[0] + b'\r\n')

    # base64 from the attachment of message 5
    att5 = a.cmd('aaab', 'UID FETCH 5 (BODY.PEEK[2])')
    mm = re.search(rb'\{(\d+)\}\r\n', att5)
    if mm:
        put('fuzz_base64', 'dovecot-attachment', att5[mm.end():mm.end() + min(int(mm.group(1)), 1200)])
    a.cmd('L004', 'LOGOUT')
    a.close()

    # bob's mailbox takes the changes: APPEND, IDLE with pushed messages.
    bob = logged_in(port, 'bob', 'bob-pw')
    msg = b'Subject: fuzz\r\n\r\nbody\r\n'
    bob.send('aaab APPEND "INBOX" (\\Seen) "1-Jan-2024 00:00:00 +0000" {%d}\r\n' % len(msg))
    cont = bob.line()
    bob.send(msg + b'\r\n')
    put(c, 'dovecot-append', bytes([OP['append'], 0]) + cont + bob.until('aaab'))
    bob.send('aaab APPEND "NoSuchBox" {%d}\r\n' % len(msg))
    refused = bob.line()
    if refused.startswith(b'+'):
        bob.send(msg + b'\r\n')
        refused += bob.until('aaab')
    put(c, 'dovecot-append-refused', bytes([OP['append'], 0]) + refused)
    bob.cmd('L005', 'SELECT "INBOX"')
    bob.send('aaab IDLE\r\n')
    pushed = bob.line()
    append_one(port, 'bob', 'bob-pw')
    time.sleep(0.5)
    bob.s.settimeout(2)
    try:
        while True:
            pushed += bob.line()
            if pushed.count(b'\r\n') >= 4:
                break
    except (socket.timeout, TimeoutError):
        pass
    bob.s.settimeout(15)
    bob.send('DONE\r\n')
    pushed += bob.until('aaab')
    put(c, 'dovecot-idle', bytes([OP['idle'], 0]) + pushed)
    for n, ln in enumerate(pushed.split(b'\r\n')):
        if ln.startswith(b'* '):
            put('fuzz_idle_line', 'dovecot-%d' % n, ln + b'\r\n')
    bob.send('aaab STORE 1 +FLAGS (\\Flagged)\r\n')
    for n, ln in enumerate(bob.until('aaab').split(b'\r\n')):
        if ln.startswith(b'* '):
            put('fuzz_idle_line', 'dovecot-store-%d' % n, ln + b'\r\n')
    bob.send('aaab LOGOUT\r\n')
    put(c, 'dovecot-logout', bytes([OP['logout'], 0]) + bob.until('aaab'))
    bob.close()

    # SASL exchanges.
    plain = Conn(port)
    plain.send('aaab AUTHENTICATE PLAIN\r\n')
    go = plain.line()
    plain.send(base64.b64encode(b'\0alice\0alice-pw') + b'\r\n')
    put(c, 'dovecot-auth-plain', bytes([OP['auth_plain'], 0]) + go + plain.until('aaab'))
    plain.close()

    cram = Conn(port)
    cram.send('aaab AUTHENTICATE CRAM-MD5\r\n')
    ch = cram.line()
    import hmac
    digest = hmac.new(b'alice-pw', base64.b64decode(ch[2:].strip()), hashlib.md5).hexdigest()
    cram.send(base64.b64encode(('alice ' + digest).encode()) + b'\r\n')
    put(c, 'dovecot-cram-md5', bytes([OP['cram_md5'], 0]) + ch + cram.until('aaab'))
    cram.close()

    xo = Conn(port)
    token = base64.b64encode(b'user=alice\x01auth=Bearer revoked-oauth2-token\x01\x01').decode()
    xo.send('aaab AUTHENTICATE XOAUTH2 %s\r\n' % token)
    resp = xo.logical()
    if resp.startswith(b'+'):
        xo.send('\r\n')
        resp += xo.until('aaab')
    put(c, 'dovecot-xoauth2-refused', bytes([OP['xoauth2'], 0]) + resp)
    xo.close()

    dig = Conn(port)
    dig.send('aaab AUTHENTICATE DIGEST-MD5\r\n')
    ch = dig.line()
    challenge = base64.b64decode(ch[2:].strip())
    fields = dict(re.findall(r'(\w+)="?([^",]*)"?', challenge.decode()))
    realm, nonce, cnonce = fields.get('realm', ''), fields['nonce'], 'Y25vbmNl'
    uri = 'imap/' + realm
    a1 = hashlib.md5(('alice:%s:alice-pw' % realm).encode()).digest() + (':%s:%s' % (nonce, cnonce)).encode()
    ha1 = hashlib.md5(a1).hexdigest()
    ha2 = hashlib.md5(('AUTHENTICATE:' + uri).encode()).hexdigest()
    resp = hashlib.md5(('%s:%s:00000001:%s:auth:%s' % (ha1, nonce, cnonce, ha2)).encode()).hexdigest()
    dig.send(base64.b64encode(('username="alice",realm="%s",nonce="%s",cnonce="%s",nc=00000001,qop=auth,'
                               'digest-uri="%s",response=%s,charset=utf-8' % (realm, nonce, cnonce, uri, resp)
                               ).encode()) + b'\r\n')
    second = dig.line()
    dig.send('\r\n')
    rest = second + dig.until('aaab')
    put('fuzz_digest_md5', 'dovecot', b'\x00' + struct.pack('<H', len(challenge)) + challenge + rest)
    put('fuzz_digest_md5', 'dovecot-verbose', b'\x03' + struct.pack('<H', len(challenge)) + challenge +
        b'aaab NO [AUTHENTICATIONFAILED] Authentication failed.\r\n')
    put('fuzz_base64', 'dovecot-digest', ch[2:].strip())
    dig.close()

    try:
        import ntlm_crypto as ntlm
    except ImportError:
        ntlm = None
    if ntlm:
        for version in (2, 1):
            nt = Conn(port)
            nt.send('aaab AUTHENTICATE NTLM\r\n')
            first = nt.line()
            nt.send(base64.b64encode(ntlm.make_type1()) + b'\r\n')
            t2line = nt.line()
            type2 = base64.b64decode(t2line[2:].strip())
            nt.send(base64.b64encode(ntlm.client_type3(type2, 'alice', 'alice-pw', version=version)) + b'\r\n')
            final = nt.until('aaab')
            opts = 1 if version == 1 else 0
            put('fuzz_ntlm_type2', 'dovecot-v%d' % version, bytes([opts]) + type2)
            put('fuzz_ntlm_type2', 'dovecot-v%d-mic' % version, bytes([opts | 2]) + type2)
            put(c, 'dovecot-ntlm-v%d' % version, bytes([OP['ntlm'], 0]) + first + t2line + final)
            nt.close()


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument('--capture', action='store_true', help='also capture responses from the Dovecot test server')
    ap.add_argument('--port', type=int, default=int(os.environ.get('ZRIMAP_IMAP_PORT') or 14310))
    args = ap.parse_args()
    rfc_seeds()
    if args.capture:
        capture(args.port)
    for t in sorted(written):
        print('%-22s %d files' % (t, written[t]))


if __name__ == '__main__':
    main()
