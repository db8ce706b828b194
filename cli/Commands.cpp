#include "Commands.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <set>

#include "CliError.h"
#include "Maildir.h"
#include "Terminal.h"
#include "UidSet.h"

namespace zr {
namespace cli {

namespace {

using Clock = std::chrono::steady_clock;

// ---------------------------------------------------------------------------
// helpers

const std::string& pos(const Context& c, size_t i) { return c.args.positional.at(i); }

std::string inQuotes(const std::string& mailbox) { return "\"" + mailbox + "\""; }

std::string errnoText() { return std::strerror(errno); }

std::vector<uint8_t> readInputFile(const std::string& path) {
    int fd = path == "-" ? dup(STDIN_FILENO) : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) localIoError("cannot read " + path + ": " + errnoText());
    struct stat st {};
    if (fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
        ::close(fd);
        localIoError("cannot read " + path + ": it is a directory");
    }
    std::vector<uint8_t> data;
    uint8_t buf[65536];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n == 0) break;
        if (n < 0) {
            if (errno == EINTR && !interrupted()) continue;
            int saved = errno;
            if (interrupted()) {
                ::close(fd);
                throw CliError(kExitInterrupted, "interrupted");
            }
            ::close(fd);
            localIoError("cannot read " + path + ": " + std::strerror(saved));
        }
        data.insert(data.end(), buf, buf + n);
    }
    ::close(fd);
    return data;
}

// Written under a temporary name and renamed, so a reader never sees half a file.
void writeFileAtomically(const std::string& path, const std::vector<uint8_t>& data) {
    std::string tmp = path + ".part";
    int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) localIoError("cannot create " + tmp + ": " + errnoText());
    const uint8_t* p = data.data();
    size_t left = data.size();
    while (left > 0) {
        ssize_t n = ::write(fd, p, left);
        if (n < 0) {
            if (errno == EINTR) continue;
            int saved = errno;
            ::close(fd);
            unlink(tmp.c_str());
            localIoError("cannot write " + tmp + ": " + std::strerror(saved));
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
    if (::close(fd) != 0 || std::rename(tmp.c_str(), path.c_str()) != 0) {
        int saved = errno;
        unlink(tmp.c_str());
        localIoError("cannot write " + path + ": " + std::strerror(saved));
    }
}

void ensureDirectory(const std::string& dir) {
    std::string partial;
    size_t start = 0;
    while (start <= dir.size()) {
        size_t slash = dir.find('/', start);
        partial = dir.substr(0, slash == std::string::npos ? dir.size() : slash);
        if (!partial.empty() && mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST)
            localIoError("cannot create directory " + partial + ": " + errnoText());
        if (slash == std::string::npos) break;
        start = slash + 1;
    }
    struct stat st {};
    if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) localIoError(dir + " is not a directory");
}

void writeStdout(const std::vector<uint8_t>& data) {
    std::cout.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
    std::cout.flush();
    if (!std::cout) localIoError("cannot write to standard output");
}

std::string base64(const std::vector<uint8_t>& in) {
    static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((in.size() + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 2 < in.size(); i += 3) {
        uint32_t v = (uint32_t(in[i]) << 16) | (uint32_t(in[i + 1]) << 8) | in[i + 2];
        out += kAlphabet[v >> 18];
        out += kAlphabet[(v >> 12) & 63];
        out += kAlphabet[(v >> 6) & 63];
        out += kAlphabet[v & 63];
    }
    if (i < in.size()) {
        uint32_t v = uint32_t(in[i]) << 16;
        if (i + 1 < in.size()) v |= uint32_t(in[i + 1]) << 8;
        out += kAlphabet[v >> 18];
        out += kAlphabet[(v >> 12) & 63];
        out += i + 1 < in.size() ? kAlphabet[(v >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

Flags flagSet(const std::vector<std::string>& values) {
    Flags flags;
    for (const std::string& v : values) {
        size_t start = 0;
        // "--add '\Seen \Flagged'" and "--add \Seen \Flagged" mean the same.
        while (start < v.size()) {
            size_t end = v.find_first_of(" ,", start);
            std::string f = v.substr(start, end == std::string::npos ? std::string::npos : end - start);
            if (!f.empty()) flags.insert(f);
            if (end == std::string::npos) break;
            start = end + 1;
        }
    }
    return flags;
}

// The UIDs of a set that exist; ranges and "*" are the server's to resolve.
// With mustExist, a plain UID that is not there is an error: COPY, MOVE and
// STORE would otherwise pass over it in silence.
std::vector<uint32_t> resolveUids(Session& s, const UidSet& set, const std::string& mailbox, bool mustExist) {
    if (!set.hasRanges && !mustExist) return set.uids;
    auto found = s.check(s.client().search("UID " + set.imapSet), "cannot look up UIDs " + set.imapSet);
    std::sort(found.begin(), found.end());
    if (mustExist) {
        for (uint32_t uid : set.uids) {
            if (!std::binary_search(found.begin(), found.end(), uid))
                failed("no message with UID " + std::to_string(uid) + " in " + inQuotes(mailbox));
        }
    }
    if (found.empty()) failed("no messages with UIDs " + set.imapSet + " in " + inQuotes(mailbox));
    return found;
}

std::string uidList(const std::vector<uint32_t>& uids) {
    std::string s;
    for (uint32_t u : uids) {
        if (!s.empty()) s += ',';
        s += std::to_string(u);
    }
    return s;
}

bool hasNonAscii(const std::string& s) {
    return std::any_of(s.begin(), s.end(), [](char c) { return static_cast<unsigned char>(c) >= 0x80; });
}

// Several shell words are re-quoted so `search INBOX SUBJECT "two words"`
// keeps its meaning (and 8-bit text, which no server takes in an atom, goes
// out as a quoted string); a word the user quoted already, or a
// parenthesised group, is left alone. A single word is taken as the complete
// criteria text.
std::string buildCriteria(const std::vector<std::string>& words) {
    if (words.empty()) return "ALL";
    if (words.size() == 1) return words[0];
    std::string out;
    for (const std::string& w : words) {
        if (!out.empty()) out += ' ';
        bool asWritten = w.size() >= 2 && ((w.front() == '"' && w.back() == '"') || (w.front() == '(' && w.back() == ')'));
        bool needsQuotes = w.empty() || w.find_first_of(" \t\"\\") != std::string::npos || hasNonAscii(w);
        if (asWritten || !needsQuotes) {
            out += w;
            continue;
        }
        out += '"';
        for (char c : w) {
            if (c == '"' || c == '\\') out += '\\';
            out += c;
        }
        out += '"';
    }
    return out;
}


// A progress line that moves while the library transfers, until the guard
// goes out of scope. total: messages to go, or 0 for one long transfer.
class Activity {
public:
    Activity(Session& s, const std::string& label, uint64_t total = 0) : m_session(s), m_bar(label, total, true) {
        m_session.setActivityListener([this] { m_bar.tick(); });
    }
    ~Activity() {
        m_session.setActivityListener(nullptr);
        m_bar.finish();
    }
    Activity(const Activity&) = delete;
    Activity& operator=(const Activity&) = delete;

    // stdout lines must not land in the middle of the progress line.
    void printing() { m_bar.finish(); }
    void done(uint64_t n) { m_bar.update(n); }

private:
    Session& m_session;
    ProgressBar m_bar;
};

std::string pad(const std::string& s, size_t width) { return s.size() >= width ? s : s + std::string(width - s.size(), ' '); }

// ---------------------------------------------------------------------------
// the subcommands

void cmdCapabilities(Context& c) {
    Session& s = c.session();
    std::vector<std::string> caps = s.client().capabilities();
    for (const std::string& cap : caps) c.out.line(cap);
    c.out.document(Json{{"capabilities", caps}});
}

void cmdList(Context& c) {
    std::string pattern = c.args.positional.empty() ? "*" : pos(c, 0);
    bool subscribed = c.args.has("--subscribed");
    Session& s = c.session();
    auto boxes = s.check(s.client().listMailboxes(pattern, subscribed), "cannot list mailboxes");
    Json arr = Json::array();
    for (const MailboxEntry& b : boxes) {
        std::string attrs;
        for (const std::string& a : b.attributes) attrs += (attrs.empty() ? "" : " ") + a;
        c.out.line(attrs.empty() ? b.name : b.name + "\t" + attrs);
        arr.push_back(Json{{"name", b.name},
                           {"raw_name", b.rawName},
                           {"delimiter", b.delimiter},
                           {"attributes", b.attributes},
                           {"selectable", b.selectable()}});
    }
    c.out.document(Json{{"mailboxes", arr}});
}

void mailboxAction(Context& c, const char* verb, const char* done, Status (ImapClient::*op)(const std::string&)) {
    const std::string& name = pos(c, 0);
    Session& s = c.session();
    s.check((s.client().*op)(name), std::string("cannot ") + verb + " " + inQuotes(name));
    c.out.line(std::string(done) + " " + inQuotes(name));
    c.out.document(Json{{"command", verb}, {"mailbox", name}, {"ok", true}});
}

void cmdCreate(Context& c) { mailboxAction(c, "create", "created", &ImapClient::createMailbox); }
void cmdDelete(Context& c) { mailboxAction(c, "delete", "deleted", &ImapClient::deleteMailbox); }
void cmdSubscribe(Context& c) { mailboxAction(c, "subscribe", "subscribed to", &ImapClient::subscribe); }
void cmdUnsubscribe(Context& c) { mailboxAction(c, "unsubscribe", "unsubscribed from", &ImapClient::unsubscribe); }

void cmdRename(Context& c) {
    const std::string& from = pos(c, 0);
    const std::string& to = pos(c, 1);
    Session& s = c.session();
    s.check(s.client().renameMailbox(from, to), "cannot rename " + inQuotes(from) + " to " + inQuotes(to));
    c.out.line("renamed " + inQuotes(from) + " to " + inQuotes(to));
    c.out.document(Json{{"command", "rename"}, {"from", from}, {"to", to}, {"ok", true}});
}

std::string defaultMailbox(Context& c, size_t index) {
    if (c.args.positional.size() > index) return pos(c, index);
    // The URL's path stands in for a left-out MAILBOX.
    ServerSettings settings = buildSettings(c.global);
    if (settings.mailbox.empty()) usageError("no MAILBOX given (and none in the URL)");
    return settings.mailbox;
}

void cmdStatus(Context& c) {
    std::string name = defaultMailbox(c, 0);
    Session& s = c.session();
    MailboxStatus st = s.check(s.client().status(name), "cannot get the status of " + inQuotes(name));
    c.out.line("mailbox:     " + name);
    c.out.line("messages:    " + std::to_string(st.messages));
    c.out.line("recent:      " + std::to_string(st.recent));
    c.out.line("unseen:      " + std::to_string(st.unseen));
    c.out.line("uidnext:     " + std::to_string(st.uidNext));
    c.out.line("uidvalidity: " + std::to_string(st.uidValidity));
    c.out.document(Json{{"mailbox", name},
                        {"messages", st.messages},
                        {"recent", st.recent},
                        {"unseen", st.unseen},
                        {"uidnext", st.uidNext},
                        {"uidvalidity", st.uidValidity}});
}

void cmdSelect(Context& c) {
    std::string name = defaultMailbox(c, 0);
    Session& s = c.session();
    SelectedMailbox box = c.args.has("--read-only") ? s.examine(name) : s.select(name);
    c.out.line("mailbox:     " + name);
    c.out.line("exists:      " + std::to_string(box.exists));
    c.out.line("uidnext:     " + std::to_string(box.uidNext));
    c.out.line("uidvalidity: " + std::to_string(box.uidValidity));
    c.out.line(std::string("read-only:   ") + (box.readOnly ? "yes" : "no"));
    c.out.line("flags:       " + flagsText(box.flags));
    c.out.document(Json{{"mailbox", name},
                        {"exists", box.exists},
                        {"uidnext", box.uidNext},
                        {"uidvalidity", box.uidValidity},
                        {"read_only", box.readOnly},
                        {"flags", flagsJson(box.flags)}});
}

void cmdSearch(Context& c) {
    const std::string& name = pos(c, 0);
    std::vector<std::string> words(c.args.positional.begin() + 1, c.args.positional.end());
    std::string criteria = buildCriteria(words);
    std::string charset = c.args.value("--charset");
    if (charset.empty() && hasNonAscii(criteria)) charset = "UTF-8";
    Session& s = c.session();
    s.examine(name);
    auto uids = s.check(s.client().search(criteria, charset), "search in " + inQuotes(name) + " failed");
    std::sort(uids.begin(), uids.end());
    for (uint32_t u : uids) c.out.line(std::to_string(u));
    c.out.document(Json{{"mailbox", name}, {"criteria", criteria}, {"uids", uids}});
}

void cmdFetch(Context& c) {
    const std::string& name = pos(c, 0);
    UidSet set = parseUidSet(std::vector<std::string>(c.args.positional.begin() + 1, c.args.positional.end()));
    bool without = c.args.has("--without-attachments");
    std::string dir = c.args.value("--out", ".");
    ensureDirectory(dir);

    Session& s = c.session();
    s.examine(name);
    std::vector<uint32_t> uids = resolveUids(s, set, name, false);

    Json arr = Json::array();
    Activity activity(s, "fetch " + name, uids.size() > 1 ? uids.size() : 0);
    size_t index = 0;
    for (uint32_t uid : uids) {
        Message msg = s.check(s.client().fetchMessage(uid, without),
                              "cannot fetch UID " + std::to_string(uid) + " from " + inQuotes(name));
        activity.printing();
        std::string path = dir + "/" + std::to_string(uid) + ".eml";
        writeFileAtomically(path, msg.mime);
        c.out.line(path + "\t" + std::to_string(msg.mime.size()) + " bytes" +
                   (msg.attachmentsLeftOut ? "\tattachments left out" : "") +
                   (msg.flags.empty() ? "" : "\t" + flagsText(msg.flags)));
        arr.push_back(Json{{"uid", uid},
                           {"file", path},
                           {"size", msg.mime.size()},
                           {"flags", flagsJson(msg.flags)},
                           {"internal_date", msg.internalDate},
                           {"attachments_left_out", msg.attachmentsLeftOut}});
        activity.done(++index);
    }
    c.out.document(Json{{"mailbox", name}, {"messages", arr}});
}

uint32_t singleUid(const std::string& text) {
    return static_cast<uint32_t>(parseNumber(text, 1, 4294967295LL, "UID"));
}

void cmdStructure(Context& c) {
    const std::string& name = pos(c, 0);
    uint32_t uid = singleUid(pos(c, 1));
    Session& s = c.session();
    s.examine(name);
    auto parts = s.check(s.client().fetchStructure(uid), "cannot fetch the structure of UID " + pos(c, 1));
    Json arr = Json::array();
    for (const MessagePart& p : parts) {
        std::string type = p.type + "/" + p.subtype;
        c.out.line(pad(p.partId.empty() ? "-" : p.partId, 8) + pad(type, 28) + pad(std::to_string(p.size), 10) +
                   pad(p.encoding, 18) + (p.isAttachment ? "attachment " : "") + p.filename);
        arr.push_back(Json{{"part", p.partId},
                           {"type", p.type},
                           {"subtype", p.subtype},
                           {"charset", p.charset},
                           {"filename", p.filename},
                           {"encoding", p.encoding},
                           {"size", p.size},
                           {"attachment", p.isAttachment}});
    }
    c.out.document(Json{{"mailbox", name}, {"uid", uid}, {"parts", arr}});
}

void cmdPart(Context& c) {
    const std::string& name = pos(c, 0);
    uint32_t uid = singleUid(pos(c, 1));
    const std::string& partId = pos(c, 2);
    bool raw = c.args.has("--raw");
    std::string outFile = c.args.value("--out");
    if (!outFile.empty()) {
        // Fail on an unwritable target before the download, not after.
        std::string parent = outFile.find('/') == std::string::npos ? "." : outFile.substr(0, outFile.rfind('/'));
        if (parent.empty()) parent = "/";
        if (access(parent.c_str(), W_OK) != 0) localIoError("cannot write " + outFile + ": " + errnoText());
    }
    Session& s = c.session();
    s.examine(name);
    std::vector<uint8_t> data;
    {
        Activity activity(s, "UID " + std::to_string(uid) + " part " + partId);
        data = s.check(s.client().fetchPart(uid, partId, !raw),
                       "cannot fetch part " + partId + " of UID " + std::to_string(uid));
    }

    Json doc{{"mailbox", name}, {"uid", uid}, {"part", partId}, {"decoded", !raw}, {"size", data.size()}};
    if (!outFile.empty()) {
        writeFileAtomically(outFile, data);
        c.out.line("wrote " + outFile + " (" + std::to_string(data.size()) + " bytes)");
        doc["file"] = outFile;
    } else if (c.out.json()) {
        doc["data_base64"] = base64(data);
    } else {
        writeStdout(data);
    }
    c.out.document(doc);
}

void cmdFlags(Context& c) {
    const std::string& name = pos(c, 0);
    UidSet set = parseUidSet(std::vector<std::string>(c.args.positional.begin() + 1, c.args.positional.end()));
    Flags add = flagSet(c.args.values("--add"));
    Flags remove = flagSet(c.args.values("--remove"));
    bool changing = !add.empty() || !remove.empty();

    Session& s = c.session();
    if (changing) {
        s.select(name);
    } else {
        s.examine(name);
    }
    std::vector<uint32_t> uids = resolveUids(s, set, name, true);
    if (!add.empty()) s.check(s.client().addFlags(uids, add), "cannot add flags to UIDs " + uidList(uids));
    if (!remove.empty())
        s.check(s.client().removeFlags(uids, remove), "cannot remove flags from UIDs " + uidList(uids));

    Json arr = Json::array();
    for (uint32_t uid : uids) {
        Flags now = s.check(s.client().fetchFlags(uid), "cannot fetch the flags of UID " + std::to_string(uid));
        c.out.line(std::to_string(uid) + "\t" + flagsText(now));
        arr.push_back(Json{{"uid", uid}, {"flags", flagsJson(now)}});
    }
    c.out.document(Json{{"mailbox", name}, {"messages", arr}});
}

void transfer(Context& c, bool move) {
    const std::string& name = pos(c, 0);
    UidSet set = parseUidSet({pos(c, 1)});
    const std::string& to = pos(c, 2);
    Session& s = c.session();
    s.select(name);
    std::vector<uint32_t> uids = resolveUids(s, set, name, true);
    const char* verb = move ? "move" : "copy";
    Status st = move ? s.client().move(uids, to) : s.client().copy(uids, to);
    s.check(st, std::string("cannot ") + verb + " UIDs " + uidList(uids) + " to " + inQuotes(to));
    c.out.line(std::string(move ? "moved " : "copied ") + std::to_string(uids.size()) + " message" +
               (uids.size() == 1 ? "" : "s") + " from " + inQuotes(name) + " to " + inQuotes(to));
    c.out.document(Json{{"command", verb}, {"mailbox", name}, {"to", to}, {"uids", uids}, {"ok", true}});
}

void cmdCopy(Context& c) { transfer(c, false); }
void cmdMove(Context& c) { transfer(c, true); }

void cmdAppend(Context& c) {
    const std::string& name = pos(c, 0);
    const std::string& file = pos(c, 1);
    Flags flags = flagSet(c.args.values("--flag"));
    std::string date = c.args.value("--date");
    if (!date.empty() && !parseInternalDate(date))
        usageError("append: --date must look like \"17-Jul-1996 02:44:25 -0700\", not \"" + date + "\"");
    // std::cin may already hold more than the password's line in its buffer.
    if (file == "-" && c.global.passwordStdin)
        usageError("append: the message cannot come from standard input when --password-stdin reads it too");
    std::vector<uint8_t> mime = readInputFile(file);
    if (mime.empty()) failed("append: " + file + " is empty; there is no message to append");

    Session& s = c.session();
    // The library sets keywords (flags without a backslash) on the new
    // message afterwards, which needs the target mailbox selected.
    if (std::any_of(flags.begin(), flags.end(), [](const std::string& f) { return f.empty() || f[0] != '\\'; }))
        s.select(name);
    uint32_t uid = 0;
    {
        Activity activity(s, "append " + file);
        uid = s.check(s.client().append(name, mime, flags, date), "cannot append " + file + " to " + inQuotes(name));
    }
    c.out.line("appended " + file + " to " + inQuotes(name) +
               (uid ? " as UID " + std::to_string(uid) : " (the server did not report the new UID)"));
    Json doc{{"mailbox", name}, {"file", file}, {"size", mime.size()}};
    doc["uid"] = uid ? Json(uid) : Json(nullptr);
    c.out.document(doc);
}

Json idleEventJson(const IdleEvent& e) {
    switch (e.kind) {
        case IdleEvent::Kind::Exists: return Json{{"event", "exists"}, {"number", e.number}};
        case IdleEvent::Kind::Expunge: return Json{{"event", "expunge"}, {"number", e.number}};
        case IdleEvent::Kind::Recent: return Json{{"event", "recent"}, {"number", e.number}};
        case IdleEvent::Kind::Flags: {
            Json j{{"event", "flags"}, {"number", e.number}};
            j["uid"] = e.uid ? Json(*e.uid) : Json(nullptr);
            j["flags"] = flagsJson(e.flags);
            return j;
        }
        case IdleEvent::Kind::Other: break;
    }
    return Json{{"event", "other"}, {"raw", e.raw}};
}

std::string idleEventText(const IdleEvent& e) {
    switch (e.kind) {
        case IdleEvent::Kind::Exists: return "exists " + std::to_string(e.number);
        case IdleEvent::Kind::Expunge: return "expunge " + std::to_string(e.number);
        case IdleEvent::Kind::Recent: return "recent " + std::to_string(e.number);
        case IdleEvent::Kind::Flags:
            return "flags " + std::to_string(e.number) + (e.uid ? " uid " + std::to_string(*e.uid) : "") + " (" +
                   flagsText(e.flags) + ")";
        case IdleEvent::Kind::Other: break;
    }
    return "other " + e.raw;
}

void cmdIdle(Context& c) {
    std::string name = defaultMailbox(c, 0);
    long long timeout = c.args.has("--timeout") ? parseNumber(c.args.value("--timeout"), 1, 86400 * 365, "--timeout") : 0;
    long long count = c.args.has("--count") ? parseNumber(c.args.value("--count"), 1, 1000000000, "--count") : 0;

    Session& s = c.session();
    s.examine(name);
    s.check(s.client().idleStart(), "cannot start IDLE on " + inQuotes(name));
    std::cerr << "idling on " << name << " (Ctrl-C to stop)" << std::endl;

    const auto start = Clock::now();
    const auto deadline = start + std::chrono::seconds(timeout);
    // Servers may drop an IDLE after 30 minutes of silence; renewing it
    // every 25 keeps a long watch alive.
    const auto renewEvery = std::chrono::minutes(25);
    auto renewAt = start + renewEvery;
    long long seen = 0;
    bool stoppedByUser = false;
    while (!count || seen < count) {
        if (interrupted()) {
            stoppedByUser = true;
            break;
        }
        auto now = Clock::now();
        if (timeout && now >= deadline) break;
        // Short waits keep Ctrl-C and the deadline responsive.
        auto slice = std::chrono::milliseconds(1000);
        if (timeout) slice = std::min(slice, std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now));
        auto events = s.client().idleWait(static_cast<int>(std::max<long long>(slice.count(), 1)));
        if (!events) {
            if (interrupted()) {
                stoppedByUser = true;
                break;
            }
            s.fail("IDLE on " + inQuotes(name) + " failed", events.message());
        }
        for (const IdleEvent& e : events.value()) {
            c.out.line(idleEventText(e));
            c.out.jsonLine(idleEventJson(e));
            if (!c.out.json()) std::cout.flush();
            ++seen;
            if (count && seen >= count) break;
        }
        if (Clock::now() >= renewAt) {
            s.check(s.client().idleDone(), "cannot renew IDLE");
            s.check(s.client().idleStart(), "cannot renew IDLE");
            renewAt = Clock::now() + renewEvery;
        }
    }
    if (stoppedByUser) clearInterrupted();  // so IDLE can end and the logout run
    s.check(s.client().idleDone(), "cannot end IDLE on " + inQuotes(name));
    if (count && seen < count && !stoppedByUser)
        failed("idle: " + std::to_string(seen) + " of " + std::to_string(count) + " events within " +
               std::to_string(timeout) + " seconds");
}

void cmdBackup(Context& c) {
    const std::string& name = pos(c, 0);
    const std::string& dir = pos(c, 1);
    std::optional<int> crashAfter;
    if (const char* hook = std::getenv("ZRIMAP_TEST_BACKUP_CRASH_AFTER"))
        crashAfter = static_cast<int>(parseNumber(hook, 0, 1000000, "ZRIMAP_TEST_BACKUP_CRASH_AFTER"));

    Session& s = c.session();
    SelectedMailbox box = s.examine(name);
    MaildirBackup backup(dir);
    backup.setCrashAfter(crashAfter);
    backup.prepare(name, box.uidValidity);
    size_t alreadyThere = backup.storedUids().size();

    auto onServer = s.check(s.client().search("ALL"), "cannot list the messages of " + inQuotes(name));
    std::sort(onServer.begin(), onServer.end());
    std::vector<uint32_t> todo;
    for (uint32_t uid : onServer) {
        if (!backup.storedUids().count(uid)) todo.push_back(uid);
    }

    std::vector<uint32_t> downloaded;
    Activity activity(s, "backup " + name, todo.size());
    for (uint32_t uid : todo) {
        if (interrupted())
            throw CliError(kExitInterrupted, "interrupted after " + std::to_string(downloaded.size()) + " of " +
                                                 std::to_string(todo.size()) +
                                                 " new messages; run the same command again to resume");
        Message msg = s.check(s.client().fetchMessage(uid), "cannot fetch UID " + std::to_string(uid));
        std::string path = backup.store(msg);
        downloaded.push_back(uid);
        activity.done(downloaded.size());
        if (c.global.verbose) {
            activity.printing();
            std::cerr << "zrimap: debug: stored " << path << '\n';
        }
    }
    backup.syncDirectory();
    activity.printing();

    size_t serverStoredBefore = onServer.size() - todo.size();
    c.out.line("backup of " + inQuotes(name) + " in " + dir + ": " + std::to_string(downloaded.size()) +
               " downloaded, " + std::to_string(serverStoredBefore) + " already there, " +
               std::to_string(onServer.size()) + " on the server (UIDVALIDITY " + std::to_string(box.uidValidity) + ")");
    if (backup.removedLeftovers())
        c.out.line("removed " + std::to_string(backup.removedLeftovers()) + " half-written file(s) of an interrupted run");
    c.out.document(Json{{"mailbox", name},
                        {"dir", dir},
                        {"uidvalidity", box.uidValidity},
                        {"on_server", onServer.size()},
                        {"already_stored", alreadyThere},
                        {"downloaded", downloaded},
                        {"leftovers_removed", backup.removedLeftovers()}});
}

void cmdHelp(Context& c) {
    if (c.args.positional.empty()) {
        std::cout << globalHelp();
        return;
    }
    const Command* cmd = findCommand(pos(c, 0));
    if (!cmd) usageError("unknown subcommand '" + pos(c, 0) + "' (see zrimap --help)");
    std::cout << commandHelp(*cmd);
}

using O = OptionSpec;

}  // namespace

Session& Context::session() {
    if (!m_session) {
        m_session = std::make_unique<Session>(global);
        m_session->open();
    }
    return *m_session;
}

void Context::finish() {
    if (m_session) m_session->close();
}

const std::vector<Command>& commands() {
    static const std::vector<Command> kCommands = {
        {{"capabilities", "capabilities", "what the server announces", "Lists the server's capabilities, one per line.",
          0, 0, {}},
         cmdCapabilities},
        {{"list", "list [PATTERN] [--subscribed]", "list mailboxes",
          "Lists the mailboxes matching PATTERN (default \"*\"; \"%\" stops at the hierarchy\n"
          "separator), with their attributes after a tab.",
          0, 1, {O{"--subscribed", O::Flag, "", "only subscribed mailboxes"}}},
         cmdList},
        {{"create", "create MAILBOX", "create a mailbox", "", 1, 1, {}}, cmdCreate},
        {{"delete", "delete MAILBOX", "delete a mailbox", "", 1, 1, {}}, cmdDelete},
        {{"rename", "rename FROM TO", "rename a mailbox", "", 2, 2, {}}, cmdRename},
        {{"subscribe", "subscribe MAILBOX", "subscribe to a mailbox", "", 1, 1, {}}, cmdSubscribe},
        {{"unsubscribe", "unsubscribe MAILBOX", "unsubscribe from a mailbox", "", 1, 1, {}}, cmdUnsubscribe},
        {{"status", "status [MAILBOX]", "message counts without opening the mailbox",
          "Prints messages, recent, unseen, uidnext and uidvalidity. MAILBOX defaults to the\n"
          "URL's mailbox.",
          0, 1, {}},
         cmdStatus},
        {{"select", "select [MAILBOX] [--read-only]", "open a mailbox and print its counts",
          "Opens MAILBOX (read-write, or with --read-only as EXAMINE) and prints the number\n"
          "of messages, UIDNEXT, UIDVALIDITY and the flags it knows. MAILBOX defaults to the\n"
          "URL's mailbox.",
          0, 1, {O{"--read-only", O::Flag, "", "open with EXAMINE"}}},
         cmdSelect},
        {{"search", "search MAILBOX [CRITERIA...] [--charset CS]", "UIDs of the messages that match",
          "Prints the UIDs matching the IMAP search criteria, one per line (default ALL).\n"
          "Several words are joined, quoting those with spaces: SUBJECT \"two words\" works.\n"
          "Non-ASCII criteria are sent as UTF-8 unless --charset says otherwise.",
          1, -1, {O{"--charset", O::One, "CS", "charset of the criteria"}}},
         cmdSearch},
        {{"fetch", "fetch MAILBOX UID... [--without-attachments] [--out DIR]", "download messages as UID.eml",
          "Writes each message to DIR/UID.eml (DIR defaults to the current directory), byte\n"
          "for byte as the server holds it. UIDs: 7, 3,5,9, 10:20, 30:*. With\n"
          "--without-attachments, attachment bodies are left out.",
          2, -1,
          {O{"--without-attachments", O::Flag, "", "leave attachment bodies out"},
           O{"--out", O::One, "DIR", "directory for the .eml files"}}},
         cmdFetch},
        {{"structure", "structure MAILBOX UID", "the MIME parts of a message",
          "Prints one line per MIME part: part id, type, size, transfer encoding, and the\n"
          "file name of attachments.",
          2, 2, {}},
         cmdStructure},
        {{"part", "part MAILBOX UID PARTID [--raw] [--out FILE]", "one part, e.g. an attachment",
          "Writes the part's content (transfer encoding undone; --raw keeps it) to FILE or\n"
          "standard output. With --json and no --out, the bytes come base64-encoded.",
          3, 3,
          {O{"--raw", O::Flag, "", "keep the transfer encoding"}, O{"--out", O::One, "FILE", "write here"}}},
         cmdPart},
        {{"flags", "flags MAILBOX UID... [--add F...] [--remove F...]", "show or change flags",
          "Adds and removes flags (\\Seen, \\Flagged, \\Answered, \\Deleted, \\Draft or keywords),\n"
          "then prints each message's flags. Without --add/--remove it only prints them.",
          2, -1,
          {O{"--add", O::Many, "FLAG", "flags to set"}, O{"--remove", O::Many, "FLAG", "flags to clear"}}},
         cmdFlags},
        {{"copy", "copy MAILBOX UIDS TOMAILBOX", "copy messages", "UIDS is one UID set: 7, 3,5,9, 10:20.", 3, 3, {}},
         cmdCopy},
        {{"move", "move MAILBOX UIDS TOMAILBOX", "move messages",
          "Uses MOVE, or COPY and UID EXPUNGE of exactly these messages where the server\n"
          "lacks MOVE but has UIDPLUS; otherwise refuses.",
          3, 3, {}},
         cmdMove},
        {{"append", "append MAILBOX FILE [--flag F...] [--date D]", "upload a message",
          "Appends the RFC 5322 message in FILE (\"-\": standard input) to MAILBOX, with\n"
          "flags and an internal date such as \"17-Jul-1996 02:44:25 -0700\".",
          2, 2,
          {O{"--flag", O::Many, "FLAG", "flags of the new message"},
           O{"--date", O::One, "DATE", "internal date"}}},
         cmdAppend},
        {{"idle", "idle [MAILBOX] [--timeout SECONDS] [--count N]", "print changes as they happen",
          "Waits on MAILBOX with IDLE and prints each event (exists N, expunge N,\n"
          "recent N, flags N uid U (...)) as it arrives; with --json one JSON object per\n"
          "line. Stops after N events, after SECONDS, or on Ctrl-C. Exits 1 when --count\n"
          "was not reached within --timeout. MAILBOX defaults to the URL's mailbox.",
          0, 1,
          {O{"--timeout", O::One, "SECONDS", "stop after this long"},
           O{"--count", O::One, "N", "stop after N events"}}},
         cmdIdle},
        {{"backup", "backup MAILBOX DIR", "copy a mailbox into a Maildir, resumably",
          "Downloads every message of MAILBOX not yet in DIR into the Maildir DIR\n"
          "(DIR/cur, new, tmp), one file per message named UID.UIDVALIDITY.zrimap:2,FLAGS.\n"
          "Run it again to fetch only what is new; an interrupted run resumes where it\n"
          "stopped (each file is written to tmp/ and renamed into cur/, so there are no\n"
          "half messages). Messages deleted on the server stay in the backup.\n"
          "DIR/.zrimap-backup records the mailbox and its UIDVALIDITY. If the server's\n"
          "UIDVALIDITY changed, its UIDs mean other messages now: the backup refuses\n"
          "(exit 1) and asks for a new directory; the old one stays a complete Maildir.",
          2, 2, {}},
         cmdBackup},
        {{"help", "help [SUBCOMMAND]", "this text, or a subcommand's", "", 0, 1, {}}, cmdHelp},
    };
    return kCommands;
}

const Command* findCommand(const std::string& name) {
    for (const Command& c : commands()) {
        if (c.spec.name == name) return &c;
    }
    return nullptr;
}

}  // namespace cli
}  // namespace zr
