// Hostile servers: literal sizes no buffer can hold, a line that never ends,
// untagged lines that never end, a body structure nested without end, NUL
// bytes inside lines, a completion with another command's tag. Each
// operation must end with false (or its time-out), memory must stay within
// the buffer ceiling, the stack within bounds, and the object must be able
// to connect again.
#include <gtest/gtest.h>
#include <pthread.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "RobustnessSupport.h"
#include "ScriptedServer.h"
#include "zrimap/auth/Settings.h"
#include "zrimap/engine.h"

using namespace zr;
using zr::test::BufferLimitGuard;
using zr::test::FloodServer;
using zr::test::ScriptedServer;

namespace {

using namespace std::string_literals;
using Clock = std::chrono::steady_clock;
using Millis = std::chrono::milliseconds;

long msSince(Clock::time_point t) {
    return static_cast<long>(std::chrono::duration_cast<Millis>(Clock::now() - t).count());
}

const char kLineReadFailed[] = "Failed to get next response line from IMAP server.";
const char kTooLarge[] = "The IMAP server's response exceeds the buffer limit; the connection is closed.";

std::string lit(const std::string& bytes) { return "{" + std::to_string(bytes.size()) + "}\r\n" + bytes; }

const std::string kTopHeader = "Subject: x\r\nContent-Type: multipart/mixed; boundary=\"b1\"\r\n\r\n";

// A summary whose part 1 is text/plain inside a multipart/mixed, so the
// download without attachments asks for BODY[1] and BODY[1.MIME].
void mixedSummary(ImapMsgSummary& s) {
    const char* parts[][3] = {{"", "multipart", "mixed"}, {"1", "text", "plain"}, {"2", "image", "png"}};
    for (const auto& p : parts) {
        auto* part = new ImapMsgPart;
        part->m_partId.setString(p[0]);
        part->m_contentType.setString(p[1]);
        part->m_subType.setString(p[2]);
        s.appendPart(part);
    }
    s.m_numAttachments = 1;
    s.m_loaded = 1;
}

class Hostile : public ::testing::Test {
public:  // the cases' lambdas drive the members directly
    _zrImap imap;
    MemoryLog log;
    _clsTls tls;
    SocketParams sp{nullptr};
    StringBuffer greeting;
    int fdsBefore = zr::test::openFdCount();

    void TearDown() override {
        imap.closeImapSocket();
        // The servers are gone by now (they are locals of the tests).
        EXPECT_EQ(zr::test::openFdCount(), fdsBefore);
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
};

// The download without attachments of message 1, as three table rows use it.
bool fetchWithoutAttachments(Hostile& h, DataBuffer& out) {
    ImapMsgSummary s;
    mixedSummary(s);
    ImapFlags f;
    StringBuffer d, t;
    bool ok = true;
    return h.imap.fetchCompleteWithoutAttachments_u(1, true, s, f, d, t, out, ok, h.sp, h.log);
}

// --- literal sizes -------------------------------------------------------

struct LiteralCase {
    const char* name;
    // The client line, and what the server sends before the size (the size,
    // "\r\n" and a few bytes of "literal" follow).
    const char* command;
    std::string prefix;
    std::function<bool(Hostile&, DataBuffer&)> run;
    const char* overflowError;  // a size that does not fit an int
    const char* negativeError;  // {-1}
};

TEST_F(Hostile, GiantLiteralSizesAreRefusedBeforeAnyReadInEveryLiteralReader) {
    const char* const sizes[] = {"{4294967295}", "{-1}", "{99999999999}", "{2147483648}"};
    const std::vector<LiteralCase> readers = {
        {"whole message", "{tag} UID FETCH 1 (FLAGS INTERNALDATE BODY[])\r\n",
         "* 1 FETCH (UID 1 FLAGS (\\Seen) BODY[] ",
         [](Hostile& h, DataBuffer& out) {
             ImapFlags f;
             StringBuffer d, t;
             bool ok = true;
             return h.imap.fetchCompleteWithAttachments_u(1, true, f, d, t, out, ok, h.sp, h.log);
         },
         "Failed to parse flags and message size.", "Failed to allocate memory for MIME."},
        {"top header", "{tag} UID FETCH 1 (FLAGS INTERNALDATE BODY[HEADER] BODY[1.MIME] BODY[1])\r\n",
         "* 1 FETCH (UID 1 BODY[HEADER] ",
         fetchWithoutAttachments,
         "Failed to parse flags and top header size.", "Failed to read top header bytes."},
        {"part MIME header", "{tag} UID FETCH 1 (FLAGS INTERNALDATE BODY[HEADER] BODY[1.MIME] BODY[1])\r\n",
         "* 1 FETCH (UID 1 BODY[HEADER] " + lit(kTopHeader) + " BODY[1.MIME] ",
         fetchWithoutAttachments,
         "Failed to parse part size", "Failed to parse part size"},
        {"part body", "{tag} UID FETCH 1 (FLAGS INTERNALDATE BODY[HEADER] BODY[1.MIME] BODY[1])\r\n",
         "* 1 FETCH (UID 1 BODY[HEADER] " + lit(kTopHeader) + " BODY[1] ",
         fetchWithoutAttachments,
         "Failed to parse part size", "Failed to parse part size"},
        {"attachment", "{tag} UID FETCH 1 (BODY[2])\r\n", "* 1 FETCH (UID 1 BODY[2] ",
         [](Hostile& h, DataBuffer& out) {
             StringBuffer t;
             bool ok = true;
             return h.imap.fetchAttachment_u(1, true, "2", t, out, ok, h.sp, h.log);
         },
         "Failed to parse attachment data size", "Failed to parse attachment data size"},
    };
    for (const LiteralCase& reader : readers) {
        for (const char* size : sizes) {
            SCOPED_TRACE(std::string(reader.name) + " " + size);
            ScriptedServer server;
            // The "literal" is followed by a completion that must never be
            // taken for one: after the refusal the connection is closed.
            server.send("* OK\r\n")
                .expect(reader.command)
                .send(reader.prefix + size + "\r\n{tag} OK fake\r\n")
                .expectClose()
                .acceptNext()
                .send("* OK again\r\n");
            server.start();
            imap.m_readTimeoutMs = 5000;
            ASSERT_TRUE(connect(server.port()));
            log.clear();
            DataBuffer out;
            const Clock::time_point t0 = Clock::now();
            EXPECT_FALSE(reader.run(*this, out));
            EXPECT_LT(msSince(t0), 2000) << "waited for data that was never needed";
            EXPECT_LT(out.getCapacity(), 64u << 10) << "memory was reserved for the hostile size";
            const char* error = std::string(size) == "{-1}" ? reader.negativeError : reader.overflowError;
            EXPECT_TRUE(log.hasError(error)) << "expected \"" << error << "\"\n" << log.toText();
            EXPECT_FALSE(imap.isImapConnected(log)) << "the connection stayed open in the middle of a literal";
            reconnect(server.port());
            imap.closeImapSocket();
            EXPECT_TRUE(server.finish()) << server.report();
            if (HasFailure()) return;
        }
    }
}

TEST_F(Hostile, LiteralAboveTheBufferCeilingIsRefusedWithoutTakingTheMemory) {
    BufferLimitGuard limit(1u << 20);
    ScriptedServer server;
    server.send("* OK\r\n")
        .expect("aaab UID FETCH 1 (FLAGS INTERNALDATE BODY[])\r\n")
        .send("* 1 FETCH (BODY[] {2000000}\r\nabc")
        .expectClose()
        .acceptNext()
        .send("* OK again\r\n");
    server.start();
    ASSERT_TRUE(connect(server.port()));
    ImapFlags f;
    StringBuffer d, t;
    DataBuffer mime;
    bool ok = true;
    EXPECT_FALSE(imap.fetchCompleteWithAttachments_u(1, true, f, d, t, mime, ok, sp, log));
    EXPECT_TRUE(log.hasError("Failed to allocate memory for MIME.")) << log.toText();
    EXPECT_EQ(mime.getCapacity(), 0u);
    reconnect(server.port());
    imap.closeImapSocket();
    EXPECT_TRUE(server.finish()) << server.report();
}

TEST_F(Hostile, GiantLiteralInsideACollectedLineIsRefusedByTheStructureReader) {
    ScriptedServer server;
    server.send("* OK\r\n")
        .expect("aaab UID FETCH 1 (UID BODYSTRUCTURE)\r\n")
        .send("* 1 FETCH (UID 1 BODYSTRUCTURE (\"text\" \"plain\" (\"name\" {4294967295}\r\nabc) NIL NIL \"7bit\" 3 "
              "1))\r\naaab OK done\r\n");
    server.start();
    ASSERT_TRUE(connect(server.port()));
    ImapMsgSummary summary;
    EXPECT_FALSE(imap.fetchMsgSummary_u(1, true, "(UID BODYSTRUCTURE)", summary, sp, log));
    EXPECT_TRUE(log.hasError("Parse summary failed."));
    EXPECT_TRUE(errorContains("literal of 4294967295 bytes runs past the end of the line")) << log.toText();
    EXPECT_EQ(summary.getNumParts(), 0);
    EXPECT_TRUE(server.finish()) << server.report();
}

// --- a line without end --------------------------------------------------

TEST_F(Hostile, EndlessLineWithoutCrlfEndsAtTheCeilingInEveryLineReader) {
    BufferLimitGuard limit(256u << 10);
    const long rssBefore = zr::test::peakRssKb();
    struct Case {
        const char* name;
        std::string greeting;
        std::vector<std::string> replies;  // the last one starts the endless line
        std::function<bool(Hostile&)> run;  // null: the greeting is the endless line
        bool transportMessageLogged;        // IDLE checks read with a silent log
    };
    const std::vector<Case> cases = {
        {"greeting", "* OK ", {}, nullptr, true},
        {"NOOP", "* OK\r\n", {"* OK "}, [](Hostile& h) {
             ImapResultSet rs;
             return h.imap.cmdNoArgs("NOOP", rs, h.log, h.sp);
         }, true},
        {"fetch parts", "* OK\r\n", {"* 1 FETCH (BODY[HEADER] " + lit(kTopHeader) + " BODY[1] "}, [](Hostile& h) {
             ImapMsgSummary s;
             mixedSummary(s);
             ImapFlags f;
             StringBuffer d, t;
             DataBuffer m;
             bool ok = true;
             return h.imap.fetchCompleteWithoutAttachments_u(1, true, s, f, d, t, m, ok, h.sp, h.log);
         }, true},
        {"IDLE check", "* OK\r\n", {"+ idling\r\n* 1 EXISTS "}, [](Hostile& h) {
             ImapResultSet rs;
             EXPECT_TRUE(h.imap.cmdNoArgs("IDLE", rs, h.log, h.sp));
             XString xml;
             return h.imap.idleCheck(200, xml, h.sp, h.log);
         }, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        FloodServer::Config cfg;
        cfg.greeting = c.greeting;
        cfg.replies = c.replies;
        cfg.chunk = std::string(64u << 10, 'x');
        cfg.maxBytes = 64u << 20;
        FloodServer server(cfg);
        log.clear();
        imap.m_readTimeoutMs = 5000;
        const Clock::time_point t0 = Clock::now();
        if (!c.run) {
            EXPECT_FALSE(connect(server.port()));
            EXPECT_TRUE(log.hasError("Failed to get greeting."));
        } else {
            ASSERT_TRUE(connect(server.port())) << log.toText();
            EXPECT_FALSE(c.run(*this));
        }
        EXPECT_LT(msSince(t0), 10000);
        EXPECT_TRUE(sp.m_otherError);
        if (c.transportMessageLogged) {
            EXPECT_TRUE(errorContains("exceeds the buffer limit")) << log.toText();
        }
        EXPECT_FALSE(imap.isImapConnected(log));
        imap.put_ReadTimeout(10);
        reconnect(server.port());
        imap.closeImapSocket();
        server.join();
        EXPECT_TRUE(server.clientClosed()) << "the client kept reading to the server's own cap";
        if (HasFailure()) return;
    }
    // A few MiB for the buffers and the sockets, far below the 64 MiB each
    // server offered.
    EXPECT_LT(zr::test::peakRssKb() - rssBefore, 48 * 1024);
}

// --- untagged lines without end ------------------------------------------

struct FloodCase {
    const char* name;
    std::vector<std::string> replies;
    std::string chunk;
    std::function<bool(Hostile&)> run;
};

std::vector<FloodCase> floodCases() {
    auto noop = [](Hostile& h) {
        ImapResultSet rs;
        return h.imap.cmdNoArgs("NOOP", rs, h.log, h.sp);
    };
    auto whole = [](Hostile& h) {
        ImapFlags f;
        StringBuffer d, t;
        DataBuffer m;
        bool ok = true;
        return h.imap.fetchCompleteWithAttachments_u(1, true, f, d, t, m, ok, h.sp, h.log);
    };
    auto parts = [](Hostile& h) {
        ImapMsgSummary s;
        mixedSummary(s);
        ImapFlags f;
        StringBuffer d, t;
        DataBuffer m;
        bool ok = true;
        return h.imap.fetchCompleteWithoutAttachments_u(1, true, s, f, d, t, m, ok, h.sp, h.log);
    };
    return {
        {"NOOP", {""}, "* 1 EXISTS\r\n", noop},
        {"NOOP, empty lines", {""}, "\r\n", noop},
        {"SEARCH", {""}, "* SEARCH 1 2 3 4 5 6 7 8 9\r\n",
         [](Hostile& h) {
             ImapResultSet rs;
             return h.imap.searchOrSortImap(true, "SEARCH", nullptr, nullptr, "ALL", rs, h.log, h.sp);
         }},
        {"summaries", {""}, "* 1 FETCH (FLAGS (\\Seen))\r\n",
         [](Hostile& h) {
             ImapResultSet rs;
             return h.imap.fetchMultipleSummaries("1:*", true, "(FLAGS)", rs, h.log, h.sp);
         }},
        {"summaries, literal continuation", {"* 1 FETCH (BODY[HEADER] {999999}\r\n"}, "Received: by x\r\n",
         [](Hostile& h) {
             ImapResultSet rs;
             return h.imap.fetchMultipleSummaries("1:*", true, "(BODY[HEADER])", rs, h.log, h.sp);
         }},
        {"attachment", {""}, "* 1 FETCH (FLAGS (\\Seen))\r\n",
         [](Hostile& h) {
             StringBuffer t;
             DataBuffer d;
             bool ok = true;
             return h.imap.fetchAttachment_u(1, true, "2", t, d, ok, h.sp, h.log);
         }},
        {"whole message, before the literal", {""}, "* 1 FETCH (FLAGS (\\Seen))\r\n", whole},
        {"whole message, after the literal", {"* 1 FETCH (BODY[] " + lit("hi") + "\r\n"}, "* 2 EXISTS\r\n", whole},
        {"parts, between the literals", {"* 1 FETCH (BODY[HEADER] " + lit(kTopHeader) + "\r\n"}, "* 2 EXISTS\r\n",
         parts},
        {"XOAUTH2 challenges", {""}, "+ eyJzdGF0dXMiOiI0MDEifQ==\r\n",
         [](Hostile& h) {
             XString user("joe");
             SecurePassword token("token");
             ImapResultSet rs;
             return h.imap.xoauth2Imap(user, token, rs, h.log, h.sp);
         }},
    };
}

TEST_F(Hostile, EndlessUntaggedLinesEndAtTheResponseBound) {
    BufferLimitGuard limit(1u << 20);
    const long rssBefore = zr::test::peakRssKb();
    for (const FloodCase& c : floodCases()) {
        SCOPED_TRACE(c.name);
        FloodServer::Config cfg;
        cfg.replies = c.replies;  // "" : the flood answers the command directly
        cfg.chunk.clear();
        for (int i = 0; i < 64; ++i) cfg.chunk += c.chunk;
        cfg.maxBytes = 96u << 20;
        FloodServer server(cfg);
        log.clear();
        imap.m_readTimeoutMs = 5000;
        ASSERT_TRUE(connect(server.port())) << log.toText();
        const Clock::time_point t0 = Clock::now();
        EXPECT_FALSE(c.run(*this));
        EXPECT_LT(msSince(t0), 20000);
        EXPECT_TRUE(log.hasError(kTooLarge)) << log.toText();
        EXPECT_FALSE(imap.isImapConnected(log));
        reconnect(server.port());
        imap.closeImapSocket();
        server.join();
        EXPECT_TRUE(server.clientClosed()) << "the client kept collecting up to the server's own cap";
        if (HasFailure()) return;
    }
    EXPECT_LT(zr::test::peakRssKb() - rssBefore, 64 * 1024);
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
        server.send("* OK\r\n").expect("aaab UID FETCH 1 (UID BODYSTRUCTURE)\r\n").send(response + "aaab OK done\r\n");
        server.start();
        _zrImap engine;
        MemoryLog l;
        bool result = true;
        onSmallStack(
            [&] {
                StringBuffer g;
                if (!engine.connectToImapServer(StringBuffer("127.0.0.1"), server.port(), g, tls, sp, l)) return;
                ImapMsgSummary summary;
                result = engine.fetchMsgSummary_u(1, true, "(UID BODYSTRUCTURE)", summary, sp, l);
            },
            2u << 20);
        EXPECT_FALSE(result);
        bool capped = false;
        for (const std::string& e : l.errors()) capped |= e.find("nesting deeper than 64 levels") != std::string::npos;
        EXPECT_TRUE(capped) << l.toText().substr(0, 2000);
        engine.closeImapSocket();
        EXPECT_TRUE(server.finish()) << server.report();
    }
}

// --- NUL bytes -----------------------------------------------------------

TEST_F(Hostile, NulBytesInsideLines) {
    imap.m_readTimeoutMs = 1000;
    // The collectors frame by CRLF and the tag, which a NUL cannot hide:
    // the lines are kept byte for byte.
    {
        ScriptedServer server;
        const std::string untagged = "* 1 EXISTS\0junk\r\n"s;
        server.send("* OK\r\n").expect("aaab NOOP\r\n").send(untagged + "aaab OK done\r\n");
        server.start();
        ASSERT_TRUE(connect(server.port()));
        ImapResultSet rs;
        ASSERT_TRUE(imap.cmdNoArgs("NOOP", rs, log, sp));
        ASSERT_EQ(rs.getNumLines(), 2);
        EXPECT_EQ(rs.getArray2().sbAt(0)->getSize(), untagged.size());
        EXPECT_TRUE(server.finish()) << server.report();
    }
    // A NUL inside the tag: not the completion, so the time-out ends it.
    {
        ScriptedServer server;
        server.send("* OK\r\n").expect("aaac NOOP\r\n").send("aaac\0OK done\r\n"s).stall(Millis(1500));
        server.start();
        ASSERT_TRUE(connect(server.port()));
        ImapResultSet rs;
        const Clock::time_point t0 = Clock::now();
        EXPECT_FALSE(imap.cmdNoArgs("NOOP", rs, log, sp));
        EXPECT_GE(msSince(t0), 900);
        EXPECT_TRUE(sp.m_timedOut);
        EXPECT_TRUE(server.finish()) << server.report();
    }
    // A NUL that hides the literal of a message download must not turn the
    // literal's bytes into response lines and the download into a success
    // with an empty message.
    const std::vector<std::string> fetchLines = {
        "* 1 FETCH (FLAGS (\\Seen)\0 BODY[] {5}\r\nhello)\r\n"s,
        "* 1 FETCH (FLAGS (\\Seen) BODY[]\0 {5}\r\nhello)\r\n"s,
        "* 1 FETCH (FLAGS (\\Seen) BODY[] {5}\0\r\nhello)\r\n"s,
    };
    for (const std::string& fetch : fetchLines) {
        SCOPED_TRACE(zr::test::visible(fetch));
        ScriptedServer server;
        server.send("* OK\r\n").expect("{tag} UID FETCH 1 (FLAGS INTERNALDATE BODY[])\r\n").send(fetch + "{tag} OK done\r\n");
        server.start();
        ASSERT_TRUE(connect(server.port()));
        log.clear();
        ImapFlags f;
        StringBuffer d, t;
        DataBuffer mime;
        bool ok = true;
        EXPECT_FALSE(imap.fetchCompleteWithAttachments_u(1, true, f, d, t, mime, ok, sp, log)) << log.toText();
        EXPECT_FALSE(ok);
        EXPECT_TRUE(server.finish()) << server.report();
    }
    // The same in the download of the top header and of a single part.
    {
        ScriptedServer server;
        server.send("* OK\r\n")
            .expect("{tag} UID FETCH 1 (FLAGS INTERNALDATE BODY[HEADER] BODY[1.MIME] BODY[1])\r\n")
            .send("* 1 FETCH (BODY[HEADER]\0 "s + lit(kTopHeader) + " BODY[1.MIME] NIL BODY[1] NIL)\r\n" +
                  "{tag} OK done\r\n");
        server.start();
        ASSERT_TRUE(connect(server.port()));
        ImapMsgSummary s;
        mixedSummary(s);
        ImapFlags f;
        StringBuffer d, t;
        DataBuffer mime;
        bool ok = true;
        EXPECT_FALSE(imap.fetchCompleteWithoutAttachments_u(1, true, s, f, d, t, mime, ok, sp, log));
        EXPECT_TRUE(server.finish()) << server.report();
    }
    {
        ScriptedServer server;
        server.send("* OK\r\n")
            .expect("{tag} UID FETCH 1 (BODY[2])\r\n")
            .send("* 1 FETCH (BODY[2]\0 {3}\r\nabc)\r\n"s + "{tag} OK done\r\n");
        server.start();
        ASSERT_TRUE(connect(server.port()));
        StringBuffer t;
        DataBuffer data;
        bool ok = true;
        EXPECT_FALSE(imap.fetchAttachment_u(1, true, "2", t, data, ok, sp, log));
        EXPECT_TRUE(server.finish()) << server.report();
    }
}

TEST(HostileText, FlagsAndSizeRefuseATextWithANul) {
    _zrImap imap;
    MemoryLog log;
    ImapFlags flags;
    StringBuffer date;
    unsigned size = 7;
    StringBuffer text;
    const std::string bytes = "* 1 FETCH (FLAGS (\\Seen)\0 BODY[] {5}\r\n"s;
    text.appendN(bytes.data(), static_cast<unsigned>(bytes.size()));
    EXPECT_FALSE(imap.parseFlagsAndSize(text, size, flags, date, log));
    EXPECT_EQ(size, 0u);
    EXPECT_TRUE(log.hasError("The FETCH response contains a NUL byte."));
}

// --- someone else's completion ------------------------------------------

TEST_F(Hostile, CompletionWithAnotherCommandsTagIsNotTaken) {
    imap.m_readTimeoutMs = 1000;
    struct Case {
        const char* name;
        const char* command;
        std::function<bool(Hostile&)> run;
        const char* error;
        bool waitsForTheTimeout;  // false: the stray lines alone make it fail
    };
    const std::vector<Case> cases = {
        {"NOOP", "NOOP", [](Hostile& h) {
             ImapResultSet rs;
             return h.imap.cmdNoArgs("NOOP", rs, h.log, h.sp);
         }, kLineReadFailed, true},
        {"whole message", "UID FETCH 1 (FLAGS INTERNALDATE BODY[])", [](Hostile& h) {
             ImapFlags f;
             StringBuffer d, t;
             DataBuffer m;
             bool ok = true;
             return h.imap.fetchCompleteWithAttachments_u(1, true, f, d, t, m, ok, h.sp, h.log);
         }, kLineReadFailed, true},
        // The part reader hands a second stray line to its caller, which
        // then finds no literal in what was collected.
        {"attachment", "UID FETCH 1 (BODY[2])", [](Hostile& h) {
             StringBuffer t;
             DataBuffer d;
             bool ok = true;
             return h.imap.fetchAttachment_u(1, true, "2", t, d, ok, h.sp, h.log);
         }, "Failed to find attachment size in response.", false},
        {"summaries", "UID FETCH 1:* (FLAGS)", [](Hostile& h) {
             ImapResultSet rs;
             return h.imap.fetchMultipleSummaries("1:*", true, "(FLAGS)", rs, h.log, h.sp);
         }, kLineReadFailed, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ScriptedServer server;
        // "{tag}" is this command's tag; "zzzz" and a tag that merely starts
        // like it belong to no command of this session.
        server.send("* OK\r\n")
            .expect(std::string("{tag} ") + c.command + "\r\n")
            .send("zzzz OK done\r\n{tag}x OK done\r\n")
            .stall(Millis(1500));
        server.start();
        ASSERT_TRUE(connect(server.port()));
        log.clear();
        const Clock::time_point t0 = Clock::now();
        EXPECT_FALSE(c.run(*this));
        const long ms = msSince(t0);
        if (c.waitsForTheTimeout) {
            EXPECT_GE(ms, 900);
        }
        EXPECT_LT(ms, 3000);
        EXPECT_TRUE(log.hasError(c.error)) << log.toText();
        EXPECT_TRUE(server.finish()) << server.report();
        if (HasFailure()) return;
    }
}

}  // namespace
