#!/usr/bin/env python3
"""seed-mailbox.py -- APPEND a realistic, deterministic set of messages over IMAP.

Default target: alice/alice-pw on 127.0.0.1:$ZRIMAP_IMAP_PORT (14310), the
Dovecot started by start-dovecot.sh.  Any IMAP server works (--host/--port/
--user/--password/--ssl/--starttls/--cafile).  Loopback addresses only.

Layout created (folder names are sent in modified UTF-7, RFC 3501 5.1.3):
  INBOX                 10 messages (UIDs 1-10 in a fresh mailbox): plain ASCII,
                        UTF-8 quoted-printable with RFC 2047 subject, 8bit
                        UTF-8, multipart/alternative, multipart/mixed with
                        binary/PNG/text attachments (base64, RFC 2231 non-ASCII
                        filename), message/rfc822 forward,
                        multipart/alternative+related (HTML with inline cid:
                        image), a 3-message thread, flags \\Seen \\Flagged
                        \\Answered and keyword $Label1
  Work, Work/Projects   2 and 3 messages (hierarchy, separator taken from LIST)
  Entwürfe              = "Entw&APw-rfe", 1 message flagged \\Draft
  日本語                 = "&ZeVnLIqe-", 1 message
  Tom & Jerry           = "Tom &- Jerry" (space + ampersand), 1 message
  Bulk                  --small N small messages (default 25), every third \\Seen
  Large                 one message with a --big-mb MiB pseudo-random attachment
                        (random.Random(1234).randbytes; default 10; 0 = none)

By default the managed folders are deleted and INBOX is emptied first
(--no-reset to just append).  --manifest FILE writes JSON records
{folder, folder_mutf7, uid, size, subject, message_id, flags} for every
message, for tests to assert against.  Exit status 0 only if every APPEND
succeeded.
"""
import argparse
import signal
import base64
import imaplib
import json
import os
import random
import re
import ssl
import sys
import time

# ---------------------------------------------------------------- modified UTF-7


def mutf7_encode(name: str) -> str:
    out, buf = [], []

    def flush():
        if buf:
            b = base64.b64encode(''.join(buf).encode('utf-16-be')).decode().rstrip('=')
            out.append('&' + b.replace('/', ',') + '-')
            buf.clear()
    for ch in name:
        if 0x20 <= ord(ch) <= 0x7e:
            flush()
            out.append('&-' if ch == '&' else ch)
        else:
            buf.append(ch)
    flush()
    return ''.join(out)


def mutf7_decode(s: str) -> str:
    def dec(m):
        if m.group(1) == '':
            return '&'
        b = m.group(1).replace(',', '/')
        return base64.b64decode(b + '=' * (-len(b) % 4)).decode('utf-16-be')
    return re.sub(r'&([^-]*)-', dec, s)


def q(name: str) -> str:
    return '"' + name.replace('\\', '\\\\').replace('"', '\\"') + '"'


# ---------------------------------------------------------------- message builders
CRLF = '\r\n'
PNG_1x1 = base64.b64decode(
    'iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAYAAAAfFcSJAAAADUlEQVR42mP8z8BQDwAEhQGAhKmMIQAAAABJRU5ErkJggg==')


def b64lines(data: bytes) -> str:
    return base64.encodebytes(data).decode().replace('\n', CRLF)


def hdrs(subject, msgid, date, frm='Bob Example <bob@localhost>', to='Alice Example <alice@localhost>',
         extra=()):
    h = ['From: ' + frm, 'To: ' + to, 'Subject: ' + subject, 'Date: ' + date,
         'Message-ID: <%s>' % msgid, 'MIME-Version: 1.0']
    h += list(extra)
    return CRLF.join(h) + CRLF


def m_plain(n):
    return (hdrs('Plain ASCII text message', 'plain-1@seed.localhost', 'Mon, 01 Jan 2024 09:00:00 +0000') +
            'Content-Type: text/plain; charset=us-ascii' + CRLF + 'Content-Transfer-Encoding: 7bit' + CRLF + CRLF +
            'Hello Alice,' + CRLF + CRLF + 'this is a plain 7-bit text message.' + CRLF + CRLF + '-- ' + CRLF + 'Bob' + CRLF)


def m_qp_utf8(n):
    subj = '=?UTF-8?B?%s?=' % base64.b64encode('Grüße aus Köln – ünïcödé ✓'.encode()).decode()
    body = ('Gr=C3=BC=C3=9Fe, Alice!' + CRLF + CRLF +
            'Diese Zeile ist quoted-printable kodiert und enth=C3=A4lt Umlaute: =C3=A4=C3=B6=C3=BC=C3=9F.' + CRLF +
            'A very long line that must be soft-wrapped by quoted-printable because it is longer than seve=' + CRLF +
            'nty-six characters in total.' + CRLF)
    return (hdrs(subj, 'qp-utf8-1@seed.localhost', 'Mon, 01 Jan 2024 09:05:00 +0100',
                 frm='=?UTF-8?Q?J=C3=BCrgen_M=C3=BCller?= <juergen@localhost>') +
            'Content-Type: text/plain; charset=UTF-8' + CRLF + 'Content-Transfer-Encoding: quoted-printable' +
            CRLF + CRLF + body)


def m_8bit(n):
    return (hdrs('8bit UTF-8 body', '8bit-1@seed.localhost', 'Mon, 01 Jan 2024 09:10:00 +0000') +
            'Content-Type: text/plain; charset=UTF-8' + CRLF + 'Content-Transfer-Encoding: 8bit' + CRLF + CRLF +
            'Raw UTF-8 in the body: 日本語, Ελληνικά, Русский, emoji 📬.' + CRLF)


def m_alternative(n):
    b = '=_alt_boundary_1'
    return (hdrs('multipart/alternative: text and HTML', 'alt-1@seed.localhost', 'Tue, 02 Jan 2024 10:00:00 +0000') +
            'Content-Type: multipart/alternative; boundary="%s"' % b + CRLF + CRLF +
            'This is a multi-part message in MIME format.' + CRLF +
            '--' + b + CRLF + 'Content-Type: text/plain; charset=UTF-8' + CRLF +
            'Content-Transfer-Encoding: 7bit' + CRLF + CRLF + 'Plain text alternative.' + CRLF +
            '--' + b + CRLF + 'Content-Type: text/html; charset=UTF-8' + CRLF +
            'Content-Transfer-Encoding: 7bit' + CRLF + CRLF +
            '<html><body><p>HTML <b>alternative</b>.</p></body></html>' + CRLF +
            '--' + b + '--' + CRLF)


def m_mixed_attachments(n):
    b = '=_mixed_boundary_1'
    rnd = random.Random(4242)
    binary = bytes(rnd.getrandbits(8) for _ in range(30000))
    pdfish = b'%PDF-1.4\n%\xe2\xe3\xcf\xd3\n' + binary
    notes = 'Notizen: Ärger mit Öl und Übermut.\r\n'.encode('utf-8')
    return (hdrs('multipart/mixed with attachments', 'mixed-1@seed.localhost', 'Wed, 03 Jan 2024 11:00:00 +0000') +
            'Content-Type: multipart/mixed; boundary="%s"' % b + CRLF + CRLF +
            '--' + b + CRLF + 'Content-Type: text/plain; charset=us-ascii' + CRLF + CRLF +
            'Three attachments: report.pdf (binary, base64), pixel.png, and a text file with a UTF-8 name.' + CRLF +
            '--' + b + CRLF + 'Content-Type: application/pdf; name="report.pdf"' + CRLF +
            'Content-Disposition: attachment; filename="report.pdf"' + CRLF +
            'Content-Transfer-Encoding: base64' + CRLF + CRLF + b64lines(pdfish) +
            '--' + b + CRLF + 'Content-Type: image/png; name="pixel.png"' + CRLF +
            'Content-Disposition: attachment; filename="pixel.png"' + CRLF +
            'Content-Transfer-Encoding: base64' + CRLF + CRLF + b64lines(PNG_1x1) +
            '--' + b + CRLF + 'Content-Type: text/plain; charset=UTF-8; name="=?UTF-8?Q?Notizen_=C3=BCber_=C3=84rger.txt?="' + CRLF +
            "Content-Disposition: attachment; filename*=UTF-8''Notizen%20%C3%BCber%20%C3%84rger.txt" + CRLF +
            'Content-Transfer-Encoding: base64' + CRLF + CRLF + b64lines(notes) +
            '--' + b + '--' + CRLF)


def m_rfc822(n):
    inner_b = '=_inner_boundary'
    inner = (hdrs('Original message (inner)', 'inner-1@seed.localhost', 'Thu, 28 Dec 2023 08:00:00 +0000',
                  frm='Carol <carol@localhost>', to='Bob <bob@localhost>') +
             'Content-Type: multipart/mixed; boundary="%s"' % inner_b + CRLF + CRLF +
             '--' + inner_b + CRLF + 'Content-Type: text/plain; charset=us-ascii' + CRLF + CRLF +
             'Inner message body.' + CRLF +
             '--' + inner_b + CRLF + 'Content-Type: application/octet-stream; name="data.bin"' + CRLF +
             'Content-Disposition: attachment; filename="data.bin"' + CRLF +
             'Content-Transfer-Encoding: base64' + CRLF + CRLF + b64lines(bytes(range(256)) * 4) +
             '--' + inner_b + '--' + CRLF)
    b = '=_fwd_boundary'
    return (hdrs('Fwd: Original message (inner)', 'fwd-1@seed.localhost', 'Thu, 04 Jan 2024 12:00:00 +0000') +
            'Content-Type: multipart/mixed; boundary="%s"' % b + CRLF + CRLF +
            '--' + b + CRLF + 'Content-Type: text/plain; charset=us-ascii' + CRLF + CRLF +
            'Forwarding the message below as an attachment.' + CRLF +
            '--' + b + CRLF + 'Content-Type: message/rfc822; name="original.eml"' + CRLF +
            'Content-Disposition: attachment; filename="original.eml"' + CRLF + CRLF + inner +
            '--' + b + '--' + CRLF)


def m_related(n):
    outer, rel = '=_alt_outer', '=_related'
    return (hdrs('HTML newsletter with inline image (multipart/related)', 'related-1@seed.localhost',
                 'Fri, 05 Jan 2024 13:00:00 +0000', frm='Newsletter <news@localhost>') +
            'Content-Type: multipart/alternative; boundary="%s"' % outer + CRLF + CRLF +
            '--' + outer + CRLF + 'Content-Type: text/plain; charset=us-ascii' + CRLF + CRLF +
            'Text version of the newsletter.' + CRLF +
            '--' + outer + CRLF + 'Content-Type: multipart/related; boundary="%s"; type="text/html"' % rel + CRLF + CRLF +
            '--' + rel + CRLF + 'Content-Type: text/html; charset=UTF-8' + CRLF +
            'Content-Transfer-Encoding: quoted-printable' + CRLF + CRLF +
            '<html><body><h1>News</h1><img src=3D"cid:logo@seed.localhost" alt=3D"logo"></body></html>' + CRLF +
            '--' + rel + CRLF + 'Content-Type: image/png' + CRLF + 'Content-ID: <logo@seed.localhost>' + CRLF +
            'Content-Disposition: inline; filename="logo.png"' + CRLF +
            'Content-Transfer-Encoding: base64' + CRLF + CRLF + b64lines(PNG_1x1) +
            '--' + rel + '--' + CRLF +
            '--' + outer + '--' + CRLF)


def m_thread(i):
    base = 'thread-1@seed.localhost'
    ids = [base, 'thread-2@seed.localhost', 'thread-3@seed.localhost']
    extra = []
    if i > 0:
        extra = ['In-Reply-To: <%s>' % ids[i - 1], 'References: ' + ' '.join('<%s>' % x for x in ids[:i])]
    subj = ('Re: ' * min(i, 1)) + 'Project kickoff'
    frm = ['Alice Example <alice@localhost>', 'Bob Example <bob@localhost>', 'Carol <carol@localhost>'][i]
    return (hdrs(subj, ids[i], 'Sat, 06 Jan 2024 1%d:00:00 +0000' % i, frm=frm, extra=extra) +
            'Content-Type: text/plain; charset=us-ascii' + CRLF + CRLF + 'Thread message %d.' % (i + 1) + CRLF)


def m_small(i):
    rnd = random.Random(i)
    frm = rnd.choice(['Alice Example <alice@localhost>', 'Bob Example <bob@localhost>', 'Carol <carol@localhost>',
                      'Zed <zed@localhost>'])
    day = 1 + (i * 7) % 28
    return (hdrs('Small message #%04d' % i, 'small-%04d@seed.localhost' % i,
                 'Sun, %02d Jan 2023 %02d:%02d:00 +0000' % (day, i % 24, i % 60), frm=frm) +
            'Content-Type: text/plain; charset=us-ascii' + CRLF + CRLF +
            ('Small body line %d.' % i) + CRLF)


def m_big(mb):
    b = '=_big_boundary'
    rnd = random.Random(1234)
    data = rnd.randbytes(int(mb * 1024 * 1024))
    return (hdrs('Large message with %g MiB attachment' % mb, 'big-1@seed.localhost', 'Mon, 08 Jan 2024 08:00:00 +0000') +
            'Content-Type: multipart/mixed; boundary="%s"' % b + CRLF + CRLF +
            '--' + b + CRLF + 'Content-Type: text/plain; charset=us-ascii' + CRLF + CRLF +
            'See the attached blob (%d bytes of pseudo-random data, seed 1234).' % len(data) + CRLF +
            '--' + b + CRLF + 'Content-Type: application/octet-stream; name="blob.bin"' + CRLF +
            'Content-Disposition: attachment; filename="blob.bin"' + CRLF +
            'Content-Transfer-Encoding: base64' + CRLF + CRLF + b64lines(data) +
            '--' + b + '--' + CRLF)


# ---------------------------------------------------------------- main
def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument('--host', default='127.0.0.1', choices=['127.0.0.1', 'localhost', '::1'])
    ap.add_argument('--port', type=int, default=int(os.environ.get('ZRIMAP_IMAP_PORT') or 14310),
                    help='default $ZRIMAP_IMAP_PORT or 14310')
    ap.add_argument('--user', default='alice')
    ap.add_argument('--password', default='alice-pw')
    ap.add_argument('--ssl', action='store_true', help='implicit TLS (use --port $ZRIMAP_IMAPS_PORT)')
    ap.add_argument('--starttls', action='store_true')
    ap.add_argument('--cafile', default=os.environ.get('ZRIMAP_CA_FILE'),
                    help='CA file to verify the server (default $ZRIMAP_CA_FILE; none: no verification)')
    ap.add_argument('--small', type=int, default=25, help='number of small messages in Bulk')
    ap.add_argument('--big-mb', type=float, default=10, help='size of the Large attachment in MiB (0: none)')
    ap.add_argument('--no-reset', action='store_true', help='do not empty INBOX / delete managed folders first')
    ap.add_argument('--manifest', help='write a JSON manifest of what was appended')
    a = ap.parse_args()
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)   # quiet when piped into head

    ctx = ssl.create_default_context(cafile=a.cafile) if a.cafile else ssl._create_unverified_context()
    t0 = time.time()
    if a.ssl:
        m = imaplib.IMAP4_SSL(a.host, a.port, ssl_context=ctx)
    else:
        m = imaplib.IMAP4(a.host, a.port)
        if a.starttls:
            m.starttls(ctx)
    m.login(a.user, a.password)

    typ, data = m.list('""', '""')
    sep = '/'
    mm = re.search(rb'\(.*?\) "(.)"', data[0] or b'')
    if mm:
        sep = mm.group(1).decode()
    prefix = ''
    # Cyrus-style servers keep personal folders under INBOX. (namespace prefix)
    typ, ns = m.namespace()
    mm = re.match(rb'\(\("([^"]*)"', ns[0] or b'')
    if mm:
        prefix = mm.group(1).decode()

    def folder(*parts):
        return prefix + sep.join(parts)

    folders = {
        'Work': folder('Work'),
        'Work/Projects': folder('Work', 'Projects'),
        'Entwürfe': folder('Entwürfe'),
        '日本語': folder('日本語'),
        'Tom & Jerry': folder('Tom & Jerry'),
        'Bulk': folder('Bulk'),
        'Large': folder('Large'),
    }
    if not a.no_reset:
        for key in ['Work/Projects', 'Work', 'Entwürfe', '日本語', 'Tom & Jerry', 'Bulk', 'Large']:
            m.delete(q(mutf7_encode(folders[key])))        # may fail if absent: fine
        m.select('INBOX')
        typ, d = m.search(None, 'ALL')
        if d[0]:
            m.store('1:*', '+FLAGS.SILENT', r'(\Deleted)')
            m.expunge()
        m.close()
    for key in ['Work', 'Work/Projects', 'Entwürfe', '日本語', 'Tom & Jerry', 'Bulk', 'Large']:
        typ, d = m.create(q(mutf7_encode(folders[key])))
        m.subscribe(q(mutf7_encode(folders[key])))

    manifest = []

    def append(box, text, flags=None, date='"01-Jan-2024 12:00:00 +0000"'):
        raw = text.encode('utf-8') if isinstance(text, str) else text
        enc = mutf7_encode(box) if box != 'INBOX' else 'INBOX'
        typ, d = m.append(q(enc), flags, date, raw)
        if typ != 'OK':
            raise SystemExit('APPEND to %s failed: %s' % (box, d))
        uid = None
        mu = re.search(rb'APPENDUID \d+ (\d+)', d[0] or b'')
        if mu:
            uid = int(mu.group(1))
        subj = re.search(r'^Subject: (.*)$', raw[:4000].decode('utf-8', 'replace'), re.M)
        mid = re.search(r'^Message-ID: <([^>]*)>', raw[:4000].decode('utf-8', 'replace'), re.M)
        manifest.append({'folder': box, 'folder_mutf7': enc, 'uid': uid, 'size': len(raw),
                         'subject': subj.group(1).strip() if subj else None,
                         'message_id': mid.group(1).strip() if mid else None,
                         'flags': flags})

    inbox = [
        (m_plain(0), None), (m_qp_utf8(0), r'(\Seen)'), (m_8bit(0), None),
        (m_alternative(0), r'(\Seen \Flagged)'), (m_mixed_attachments(0), None),
        (m_rfc822(0), r'(\Answered \Seen)'), (m_related(0), '($Label1)'),
        (m_thread(0), r'(\Seen)'), (m_thread(1), None), (m_thread(2), None),
    ]
    for i, (txt, fl) in enumerate(inbox):
        append('INBOX', txt, fl, '"%02d-Jan-2024 12:00:00 +0000"' % (i + 1))
    append(folders['Work'], m_plain(0).replace('plain-1@', 'work-plain-1@'))
    append(folders['Work'], m_alternative(0).replace('alt-1@', 'work-alt-1@'))
    for i in range(3):
        append(folders['Work/Projects'], m_thread(i).replace('@seed.localhost', '@proj.seed.localhost'))
    append(folders['Entwürfe'], m_qp_utf8(0).replace('qp-utf8-1@', 'draft-1@'), r'(\Draft)')
    append(folders['日本語'], m_8bit(0).replace('8bit-1@', 'jp-1@'))
    append(folders['Tom & Jerry'], m_plain(0).replace('plain-1@', 'tj-1@'))
    for i in range(a.small):
        append(folders['Bulk'], m_small(i), r'(\Seen)' if i % 3 == 0 else None,
               '"%02d-Feb-2023 %02d:%02d:00 +0000"' % (1 + i % 28, i % 24, i % 60))
    if a.big_mb > 0:
        append(folders['Large'], m_big(a.big_mb))

    # summary from the server's point of view
    print('Seeded %s@%s:%d in %.1f s (hierarchy separator %r, personal prefix %r)'
          % (a.user, a.host, a.port, time.time() - t0, sep, prefix))
    typ, lst = m.list()
    for line in lst:
        line = line.decode()
        name = re.search(r' "(?:.|\\\\)" (.*)$', line)
        n = name.group(1).strip('"') if name else line
        st = m.status(q(n), '(MESSAGES UNSEEN UIDNEXT)')
        print('  %-55s %-20s %s' % (line, mutf7_decode(n), st[1][0].decode() if st[0] == 'OK' else st))
    m.logout()
    if a.manifest:
        with open(a.manifest, 'w', encoding='utf-8') as f:
            json.dump(manifest, f, ensure_ascii=False, indent=1)
        print('manifest:', a.manifest)
    return 0


if __name__ == '__main__':
    sys.exit(main())
