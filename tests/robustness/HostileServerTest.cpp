// Hostile servers: literal sizes no buffer can hold, a line that never ends,
// untagged lines that never end, a body structure nested without end, NUL
// bytes inside lines, a completion with another command's tag. Each
// operation must end with false (or its time-out), memory must stay within
// the buffer ceiling, the stack within bounds, and the object must be able
// to connect again.
#include <gtest/gtest.h>
#include <pthread.h>

#include <functional>
#include <string>
#include <vector>

#include "RobustnessSupport.h"
#include "ScriptedServer.h"
#include "zrimap/auth/Settings.h"

using namespace zr;
using namespace zr::test;
using namespace std::string_literals;

namespace {

using Millis = std::chrono::milliseconds;

const std::string kTopHeader = "Subject: x\r\nContent-Type: multipart/mixed; boundary=\"b1\"\r\n\r\n";

class Hostile : public ::testing::Test {
public:
    _zrImap imap;
    MemoryLog log;
    _clsTls tls;
    SocketParams sp{nullptr};
    StringBuffer greeting;
    // What the downloads fill in.
    ImapFlags flags;
    StringBuffer date, text;
    DataBuffer out;
    bool ok = true;
    int fdsBefore = openFdCount();

    void TearDown() override {
        imap.closeImapSocket();
        // The servers are gone by now (they are locals of the tests).
        EXPECT_EQ(openFdCount(), fdsBefore);
    }
    bool connect(std::uint16_t port) {
        return imap.connectToImapServer(StringBuffer("127.0.0.1"), port, greeting, tls, sp, log);
    }
    void reconnect(std::uint16_t port) {
        ASSERT_TRUE(connect(port)) << log.toText();
        EXPECT_STREQ(greeting.getString(), "* OK again\r\n");
    }
    bool errorContains(const std::string& text) const {
        for (const std::string& e : log.errors())
            if (e.find(text) != std::string::npos) return true;
        return false;
    }
    void resetForCase() {
        log.clear();
        sp.initFlags();
        out.clear();
        ok = true;
    }

    // The operations the tables drive.
    bool noop() {
        ImapResultSet rs;
        return imap.cmdNoArgs("NOOP", rs, log, sp);
    }
    bool whole() { return imap.fetchCompleteWithAttachments_u(1, true, flags, date, text, out, ok, sp, log); }
    bool parts() {
        ImapMsgSummary s;
        mixedSummary(s);
        return imap.fetchCompleteWithoutAttachments_u(1, true, s, flags, date, text, out, ok, sp, log);
    }
    bool attachment() { return imap.fetchAttachment_u(1, true, "2", text, out, ok, sp, log); }
    bool summaries() {
        ImapResultSet rs;
        return imap.fetchMultipleSummaries("1:*", true, "(FLAGS)", rs, log, sp);
    }
    bool headerSummaries() {
        ImapResultSet rs;
        return imap.fetchMultipleSummaries("1:*", true, "(BODY[HEADER])", rs, log, sp);
    }
    bool structure() {
        ImapMsgSummary s;
        return imap.fetchMsgSummary_u(1, true, "(UID BODYSTRUCTURE)", s, sp, log);
    }
    bool search() {
        ImapResultSet rs;
        return imap.searchOrSortImap(true, "SEARCH", nullptr, nullptr, "ALL", rs, log, sp);
    }
    bool xoauth2() {
        XString user("joe");
        SecurePassword token("token");
        ImapResultSet rs;
        return imap.xoauth2Imap(user, token, rs, log, sp);
    }
    bool idleCheck() {
        ImapResultSet rs;
        EXPECT_TRUE(imap.cmdNoArgs("IDLE", rs, log, sp));
        XString xml;
        return imap.idleCheck(200, xml, sp, log);
    }
};

using Op = bool (Hostile::*)();

// --- scripted replies ----------------------------------------------------

enum class End {
    kCloses,      // the client drops the connection at once and connects again
    kTimesOut,    // nothing acceptable follows: the read time-out ends it
    kFailsEarly,  // as kTimesOut, but the stray lines alone make it fail
    kAnswered,    // the completion arrives; the reply itself is refused
};

struct ScriptedCase {
    std::string name;
    std::string command;  // without the tag and the CRLF
    std::string reply;
    Op op;
    std::string error;  // a part of an error message; empty: not checked
    End end;
};

std::vector<ScriptedCase> scriptedCases() {
    std::vector<ScriptedCase> cases;
    // Literal sizes: each reader refuses before reading anything. The
    // completion after the "literal" must never be taken for one.
    const std::string parts = "UID FETCH 1 (FLAGS INTERNALDATE BODY[HEADER] BODY[1.MIME] BODY[1])";
    struct Reader {
        const char* name;
        std::string command, prefix;
        Op op;
        const char *overflowError, *negativeError;
    };
    const Reader readers[] = {
        {"whole message", "UID FETCH 1 (FLAGS INTERNALDATE BODY[])", "* 1 FETCH (UID 1 FLAGS (\\Seen) BODY[] ",
         &Hostile::whole, "Failed to parse flags and message size.", "Failed to allocate memory for MIME."},
        {"top header", parts, "* 1 FETCH (UID 1 BODY[HEADER] ", &Hostile::parts,
         "Failed to parse flags and top header size.", "Failed to read top header bytes."},
        {"part MIME header", parts, "* 1 FETCH (UID 1 BODY[HEADER] " + lit(kTopHeader) + " BODY[1.MIME] ",
         &Hostile::parts, "Failed to parse part size", "Failed to parse part size"},
        {"part body", parts, "* 1 FETCH (UID 1 BODY[HEADER] " + lit(kTopHeader) + " BODY[1] ", &Hostile::parts,
         "Failed to parse part size", "Failed to parse part size"},
        {"attachment", "UID FETCH 1 (BODY[2])", "* 1 FETCH (UID 1 BODY[2] ", &Hostile::attachment,
         "Failed to parse attachment data size", "Failed to parse attachment data size"},
    };
    for (const Reader& r : readers)
        for (const char* size : {"{4294967295}", "{-1}", "{99999999999}", "{2147483648}"})
            cases.push_back({r.name + " "s + size, r.command, r.prefix + size + "\r\n{tag} OK fake\r\n", r.op,
                             size == "{-1}"s ? r.negativeError : r.overflowError, End::kCloses});
    // Above the 1 MiB ceiling the tests run under, but a valid int.
    cases.push_back({"whole message above the ceiling", "UID FETCH 1 (FLAGS INTERNALDATE BODY[])",
                     "* 1 FETCH (BODY[] {2000000}\r\nabc", &Hostile::whole, "Failed to allocate memory for MIME.",
                     End::kCloses});
    // Inside a collected line the structure parser, not the collector, meets it.
    cases.push_back({"structure", "UID FETCH 1 (UID BODYSTRUCTURE)",
                     "* 1 FETCH (UID 1 BODYSTRUCTURE (\"text\" \"plain\" (\"name\" {4294967295}\r\nabc) NIL NIL "
                     "\"7bit\" 3 1))\r\n{tag} OK done\r\n",
                     &Hostile::structure, "literal of 4294967295 bytes runs past the end of the line", End::kAnswered});

    // A NUL inside the tag: not the completion.
    cases.push_back({"NUL in the tag", "NOOP", "{tag}\0OK done\r\n"s, &Hostile::noop, "", End::kTimesOut});
    // A NUL that hides a literal must not turn its bytes into response lines
    // and the download into a success with an empty message.
    for (const std::string& fetch : {"* 1 FETCH (FLAGS (\\Seen)\0 BODY[] {5}\r\nhello)\r\n"s,
                                     "* 1 FETCH (FLAGS (\\Seen) BODY[]\0 {5}\r\nhello)\r\n"s,
                                     "* 1 FETCH (FLAGS (\\Seen) BODY[] {5}\0\r\nhello)\r\n"s})
        cases.push_back({"NUL in " + visible(fetch), "UID FETCH 1 (FLAGS INTERNALDATE BODY[])",
                         fetch + "{tag} OK done\r\n", &Hostile::whole, "", End::kAnswered});
    cases.push_back({"NUL before the top header", parts,
                     "* 1 FETCH (BODY[HEADER]\0 "s + lit(kTopHeader) + " BODY[1.MIME] NIL BODY[1] NIL)\r\n{tag} OK done\r\n",
                     &Hostile::parts, "", End::kAnswered});
    cases.push_back({"NUL before an attachment", "UID FETCH 1 (BODY[2])",
                     "* 1 FETCH (BODY[2]\0 {3}\r\nabc)\r\n{tag} OK done\r\n"s, &Hostile::attachment, "", End::kAnswered});

    // Someone else's completion: "zzzz" and a tag that merely starts like
    // this command's belong to no command of this session.
    const std::string stray = "zzzz OK done\r\n{tag}x OK done\r\n";
    cases.push_back({"other tag, NOOP", "NOOP", stray, &Hostile::noop, kLineReadFailed, End::kTimesOut});
    cases.push_back({"other tag, whole message", "UID FETCH 1 (FLAGS INTERNALDATE BODY[])", stray, &Hostile::whole,
                     kLineReadFailed, End::kTimesOut});
    cases.push_back({"other tag, summaries", "UID FETCH 1:* (FLAGS)", stray, &Hostile::summaries, kLineReadFailed,
                     End::kTimesOut});
    // The part reader hands the second stray line to its caller, which then
    // finds no literal in what was collected.
    cases.push_back({"other tag, attachment", "UID FETCH 1 (BODY[2])", stray, &Hostile::attachment,
                     "Failed to find attachment size in response.", End::kFailsEarly});
    return cases;
}

TEST_F(Hostile, ScriptedRepliesFailCleanly) {
    BufferLimitGuard limit(1u << 20);
    for (const ScriptedCase& c : scriptedCases()) {
        SCOPED_TRACE(c.name);
        const bool timesOut = c.end == End::kTimesOut || c.end == End::kFailsEarly;
        ScriptedServer server;
        server.send("* OK\r\n").expect("{tag} " + c.command + "\r\n").send(c.reply);
        if (c.end == End::kCloses) server.expectClose().acceptNext().send("* OK again\r\n");
        if (timesOut) server.stall(Millis(1500));
        server.start();
        imap.m_readTimeoutMs = timesOut ? 1000 : 5000;
        ASSERT_TRUE(connect(server.port()));
        resetForCase();
        const Clock::time_point t0 = Clock::now();
        EXPECT_FALSE((this->*c.op)());
        const long ms = msSince(t0);
        EXPECT_LT(ms, timesOut ? 3000 : 2000) << "waited for data that was never needed";
        EXPECT_LT(out.getCapacity(), 64u << 10) << "memory was reserved for a hostile size";
        if (c.op == &Hostile::whole) {
            EXPECT_FALSE(ok);
        }
        if (!c.error.empty()) {
            EXPECT_TRUE(errorContains(c.error)) << "expected \"" << c.error << "\"\n" << log.toText();
        }
        if (c.end == End::kTimesOut) {
            EXPECT_GE(ms, 900);
            EXPECT_TRUE(sp.m_timedOut);
        }
        if (c.end == End::kFailsEarly) {
            EXPECT_LT(ms, 900);
        }
        if (c.end == End::kCloses) {
            EXPECT_FALSE(imap.isImapConnected(log)) << "the connection stayed open in the middle of a literal";
            reconnect(server.port());
        }
        imap.closeImapSocket();
        EXPECT_TRUE(server.finish()) << server.report();
        if (HasFailure()) return;
    }
}

TEST_F(Hostile, NulBytesInsideUntaggedLinesAreKept) {
    // The collectors frame by CRLF and the tag, which a NUL cannot hide.
    ScriptedServer server;
    const std::string untagged = "* 1 EXISTS\0junk\r\n"s;
    server.send("* OK\r\n").expect("{tag} NOOP\r\n").send(untagged + "{tag} OK done\r\n");
    server.start();
    ASSERT_TRUE(connect(server.port()));
    ImapResultSet rs;
    ASSERT_TRUE(imap.cmdNoArgs("NOOP", rs, log, sp));
    ASSERT_EQ(rs.getNumLines(), 2);
    EXPECT_EQ(rs.getArray2().sbAt(0)->getSize(), untagged.size());
    EXPECT_TRUE(server.finish()) << server.report();
}

// --- endless data --------------------------------------------------------

const char kLineTooLong[] = "Line from the server exceeds the buffer limit";
const char kTooLarge[] = "The IMAP server's response exceeds the buffer limit; the connection is closed.";

struct FloodCase {
    const char* name;
    std::vector<std::string> replies;  // "": the flood answers the command directly
    std::string unit;                  // repeated without end
    Op op;                             // null: the greeting is the endless line
    const char* error;                 // null: IDLE checks read with a silent log
};

TEST_F(Hostile, EndlessDataEndsAtTheBufferCeiling) {
    BufferLimitGuard limit(1u << 20);
    const long rssBefore = peakRssKb();
    const std::vector<FloodCase> cases = {
        // One line without CRLF.
        {"line: greeting", {}, "x", nullptr, kLineTooLong},
        {"line: NOOP", {"* OK "}, "x", &Hostile::noop, kLineTooLong},
        {"line: fetch parts", {"* 1 FETCH (BODY[HEADER] " + lit(kTopHeader) + " BODY[1] "}, "x", &Hostile::parts,
         kLineTooLong},
        {"line: IDLE check", {"+ idling\r\n* 1 EXISTS "}, "x", &Hostile::idleCheck, nullptr},
        // Untagged lines without end.
        {"NOOP", {""}, "* 1 EXISTS\r\n", &Hostile::noop, kTooLarge},
        {"NOOP, empty lines", {""}, "\r\n", &Hostile::noop, kTooLarge},
        {"SEARCH", {""}, "* SEARCH 1 2 3 4 5 6 7 8 9\r\n", &Hostile::search, kTooLarge},
        {"summaries", {""}, "* 1 FETCH (FLAGS (\\Seen))\r\n", &Hostile::summaries, kTooLarge},
        {"summaries, literal continuation", {"* 1 FETCH (BODY[HEADER] {999999}\r\n"}, "Received: by x\r\n",
         &Hostile::headerSummaries, kTooLarge},
        {"attachment", {""}, "* 1 FETCH (FLAGS (\\Seen))\r\n", &Hostile::attachment, kTooLarge},
        {"whole message, before the literal", {""}, "* 1 FETCH (FLAGS (\\Seen))\r\n", &Hostile::whole, kTooLarge},
        {"whole message, after the literal", {"* 1 FETCH (BODY[] " + lit("hi") + "\r\n"}, "* 2 EXISTS\r\n",
         &Hostile::whole, kTooLarge},
        {"parts, between the literals", {"* 1 FETCH (BODY[HEADER] " + lit(kTopHeader) + "\r\n"}, "* 2 EXISTS\r\n",
         &Hostile::parts, kTooLarge},
        {"XOAUTH2 challenges", {""}, "+ eyJzdGF0dXMiOiI0MDEifQ==\r\n", &Hostile::xoauth2, kTooLarge},
    };
    for (const FloodCase& c : cases) {
        SCOPED_TRACE(c.name);
        FloodServer::Config cfg;
        if (!c.op) cfg.greeting = "* OK ";
        cfg.replies = c.replies;
        while (cfg.chunk.size() < (64u << 10)) cfg.chunk += c.unit;
        cfg.maxBytes = 96u << 20;
        FloodServer server(cfg);
        resetForCase();
        imap.m_readTimeoutMs = 5000;
        const Clock::time_point t0 = Clock::now();
        if (!c.op) {
            EXPECT_FALSE(connect(server.port()));
            EXPECT_TRUE(log.hasError("Failed to get greeting."));
        } else {
            ASSERT_TRUE(connect(server.port())) << log.toText();
            EXPECT_FALSE((this->*c.op)());
        }
        EXPECT_LT(msSince(t0), 20000);
        // A line without end is the transport's to refuse, and it says so.
        if (c.unit.find('\n') == std::string::npos) {
            EXPECT_TRUE(sp.m_otherError);
        }
        if (c.error) {
            EXPECT_TRUE(errorContains(c.error)) << log.toText();
        }
        EXPECT_FALSE(imap.isImapConnected(log));
        reconnect(server.port());
        imap.closeImapSocket();
        server.join();
        EXPECT_TRUE(server.clientClosed()) << "the client kept reading to the server's own cap";
        if (HasFailure()) return;
    }
    // A few MiB for the buffers and the sockets, far below the 96 MiB each
    // server offered.
    EXPECT_LT(peakRssKb() - rssBefore, 64 * 1024);
}

TEST_F(Hostile, EndlessIdlePushesReturnAtTheBoundAndTheRestStaysQueued) {
    BufferLimitGuard limit(256u << 10);
    FloodServer::Config cfg;
    cfg.replies = {"+ idling\r\n"};
    cfg.acceptSecond = false;
    for (int i = 0; i < 256; ++i) cfg.chunk += "* " + std::to_string(i + 1) + " EXISTS\r\n";
    cfg.maxBytes = 64u << 20;
    FloodServer server(cfg);
    imap.m_readTimeoutMs = 5000;
    ASSERT_TRUE(connect(server.port()));
    ImapResultSet rs;
    ASSERT_TRUE(imap.cmdNoArgs("IDLE", rs, log, sp)) << log.toText();
    XString xml;
    Clock::time_point t0 = Clock::now();
    ASSERT_TRUE(imap.idleCheck(200, xml, sp, log)) << log.toText();
    EXPECT_LT(msSince(t0), 10000);
    EXPECT_TRUE(log.hasInfo("IDLE data reached the buffer limit; the rest is left for the next check."));
    const std::string first = xml.getUtf8();
    EXPECT_EQ(first.rfind("<idle><exists>1</exists><exists>2</exists>", 0), 0u);
    EXPECT_LT(first.size(), 256u << 10);
    // The connection is intact: the next check goes on where this one stopped.
    EXPECT_TRUE(imap.isImapConnected(log));
    t0 = Clock::now();
    ASSERT_TRUE(imap.idleCheck(200, xml, sp, log));
    EXPECT_LT(msSince(t0), 10000);
    EXPECT_EQ(std::string(xml.getUtf8()).rfind("<idle><exists>", 0), 0u);
    imap.closeImapSocket();
    server.join();
    EXPECT_TRUE(server.clientClosed());
}

// --- nesting -------------------------------------------------------------

// Runs fn on a thread with a small stack, so unbounded recursion crashes
// the test instead of passing unnoticed on the main thread's large stack.
void onSmallStack(const std::function<void()>& fn, std::size_t stackBytes) {
    pthread_attr_t attr;
    ASSERT_EQ(pthread_attr_init(&attr), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attr, stackBytes), 0);
    pthread_t thread;
    auto* arg = new std::function<void()>(fn);
    const int rc = pthread_create(
        &thread, &attr,
        [](void* p) -> void* {
            auto* f = static_cast<std::function<void()>*>(p);
            (*f)();
            delete f;
            return nullptr;
        },
        arg);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        delete arg;
        FAIL() << "pthread_create failed";
    }
    pthread_join(thread, nullptr);
}

TEST_F(Hostile, DeeplyNestedBodyStructureIsRefusedWithinASmallStack) {
    constexpr int kDepth = 200000;
    std::string nested = "* 1 FETCH (UID 1 BODYSTRUCTURE ";
    nested.append(kDepth, '(');
    nested += "\"text\" \"plain\" NIL NIL NIL \"7bit\" 1 1";
    nested.append(kDepth, ')');
    nested += ")\r\n";
    std::string unknownItem = "* 1 FETCH (X-EXTENSION ";
    unknownItem.append(kDepth, '(');
    unknownItem.append(kDepth, ')');
    unknownItem += " UID 1 BODYSTRUCTURE (\"text\" \"plain\" NIL NIL NIL \"7bit\" 1 1))\r\n";
    for (const std::string& response : {nested, unknownItem}) {
        ScriptedServer server;
        server.send("* OK\r\n").expect("{tag} UID FETCH 1 (UID BODYSTRUCTURE)\r\n").send(response + "{tag} OK done\r\n");
        server.start();
        log.clear();
        bool result = true;
        onSmallStack(
            [&] {
                if (connect(server.port())) result = structure();
            },
            2u << 20);
        EXPECT_FALSE(result);
        EXPECT_TRUE(errorContains("nesting deeper than 64 levels")) << log.toText().substr(0, 2000);
        imap.closeImapSocket();
        EXPECT_TRUE(server.finish()) << server.report();
    }
}

}  // namespace
