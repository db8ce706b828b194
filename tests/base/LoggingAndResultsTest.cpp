#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "zrimap/engine.h"

using namespace zr;

namespace {

struct RecordingSink : ProgressEvent {
    std::vector<std::string> events;
    int abortAfter = -1;  // answer true from this check on
    int checks = 0;
    void onProgressInfo(const char* name, const char* value) override { events.push_back(std::string(name) + "=" + value); }
    bool onAbortCheck() override { return abortAfter >= 0 && checks++ >= abortAfter; }
};

}  // namespace

TEST(MemoryLog, RecordsKindsContextsAndHelpers) {
    MemoryLog log;
    {
        LogContextExitor outer(log, "connectToImapServer");
        log.LogDataLong("port", 143);
        {
            LogContextExitor inner(log, "getCompleteResponse");
            log.logError("Failed to get greeting.");
            log.LogDataSb_copyTrim("ImapCmdResp", StringBuffer("  * OK ready\r\n"));
        }
        log.LogBracketed("host", " h ");
        XString x("alice");
        log.LogDataX("login", x);
    }
    log.logInfo("after");
    EXPECT_EQ(log.contextPath(), "");
    EXPECT_TRUE(log.hasError("Failed to get greeting."));
    EXPECT_FALSE(log.hasError("Failed to get greeting"));
    EXPECT_EQ(*log.firstData("port"), "143");
    EXPECT_EQ(*log.firstData("ImapCmdResp"), "* OK ready");
    EXPECT_EQ(*log.firstData("host"), "[ h ]");
    EXPECT_EQ(*log.lastData("login"), "alice");
    EXPECT_EQ(log.firstData("nothing"), nullptr);
    const auto& e = log.entries();
    ASSERT_EQ(e.size(), 10u);
    EXPECT_EQ(e[3].context, "connectToImapServer/getCompleteResponse");
    EXPECT_EQ(e[3].kind, MemoryLog::Kind::Error);
    EXPECT_EQ(e[9].context, "");
    EXPECT_NE(log.toText().find("connectToImapServer/getCompleteResponse: ERROR Failed to get greeting."),
              std::string::npos);
    log.leaveContext();  // unbalanced: ignored
    EXPECT_EQ(log.entries().size(), 10u);
}

TEST(LogBase, NullLogSwallowsEverything) {
    MemoryLog log;
    LogNull quiet(log);
    quiet.logError("x");
    EXPECT_FALSE(quiet.m_verboseLogging);
    EXPECT_EQ(log.errors().size(), 0u);
}

TEST(StreamLog, WritesIndentedLinesToStreamAndFile) {
    std::ostringstream os;
    {
        StreamLog log(os);
        LogContextExitor ctx(log, "loginImap");
        log.logData("login", "alice");
        log.logError("Login failed");
    }
    const std::string text = os.str();
    EXPECT_EQ(text.rfind("loginImap:\n  login: alice\n  ERROR: Login failed\n", 0), 0u) << text;
    EXPECT_NE(text.find(" ms)"), std::string::npos);

    char path[] = "/tmp/zrimap-streamlog-XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    {
        StreamLog file(path);
        ASSERT_TRUE(file.isOpen());
        file.logInfo("to the file");
    }
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    EXPECT_EQ(line, "to the file");
    std::remove(path);
    EXPECT_FALSE(StreamLog("/nonexistent-dir/x.log").isOpen());
}

TEST(Progress, MonitorForwardsEventsAndLatchesAbort) {
    RecordingSink sink;
    sink.abortAfter = 1;
    ProgressMonitor pm(&sink);
    MemoryLog log;
    pm.progressInfo("ImapCmdSent", "aaab NOOP\r\n");
    EXPECT_EQ(sink.events, (std::vector<std::string>{"ImapCmdSent=aaab NOOP\r\n"}));
    EXPECT_FALSE(pm.get_Aborted(log));
    EXPECT_TRUE(pm.get_Aborted(log));
    sink.abortAfter = -1;
    EXPECT_TRUE(pm.get_Aborted(log));  // stays aborted

    ProgressMonitor none(nullptr);
    none.progressInfo("x", "y");
    EXPECT_FALSE(none.get_Aborted(log));
    none.abort();
    EXPECT_TRUE(none.get_Aborted(log));
}

TEST(ImapResultSet, IsOkJudgesTheCompletionLine) {
    MemoryLog log;
    struct Case {
        const char* tag;
        std::vector<const char*> lines;
        bool ok;
    };
    const Case cases[] = {
        {"", {}, false},
        {"aaab", {"* CAPABILITY IMAP4rev1\r\n", "aaab OK done\r\n"}, true},
        {"aaab", {"aaab ok\r\n"}, true},
        {"aaac", {"* SEARCH 1 2", "OK SEARCH completed"}, true},  // a status split off a SEARCH line has no tag
        {"aaab", {"aaab NO [AUTHENTICATIONFAILED] nope\r\n"}, false},
        {"aaab", {"aaab BAD\r\n"}, false},
        {"aaab", {"aaab OKAY\r\n"}, false},
        {"aaab", {"aaabx OK\r\n"}, false},
        {"aaab", {"aaac OK other tag\r\n"}, false},
        {"aaab", {"* OK untagged\r\n"}, false},
    };
    for (const Case& c : cases) {
        ImapResultSet rs;
        rs.setTag(c.tag);
        for (const char* l : c.lines) rs.getArray2().appendString(l);
        EXPECT_EQ(rs.isOK(true, log), c.ok) << (c.lines.empty() ? "no lines" : c.lines.back());
    }
    EXPECT_EQ(*log.lastData("imapStatusLine"), "* OK untagged");
}
TEST(ImapResultSet, TextAppendsEveryLineAndClearEmpties) {
    ImapResultSet rs;
    rs.setTag("aaad");
    rs.getArray2().appendString("* 1 FETCH (BODY {5}\r\nhello)\r\n");
    rs.getArray2().appendString("aaad OK\r\n");
    EXPECT_STREQ(rs.getLine(5), "");
    StringBuffer text("x");
    rs.toStringBuffer(text);
    EXPECT_STREQ(text.getString(), "x* 1 FETCH (BODY {5}\r\nhello)\r\naaad OK\r\n");
    rs.clear();
    EXPECT_EQ(rs.getNumLines(), 0);
    EXPECT_STREQ(rs.getTag(), "");
}

TEST(ImapMsgSummary, FindsPartsAndTheBestDisplayablePart) {
    ImapMsgSummary* s = ImapMsgSummary::createNewObject();
    auto add = [&](const char* id, const char* type, const char* sub, bool attachment = false) {
        auto* p = new ImapMsgPart;
        p->m_partId.setString(id);
        p->m_contentType.setString(type);
        p->m_subType.setString(sub);
        p->m_isAttachment = attachment;
        s->appendPart(p);
    };
    add("", "MULTIPART", "MIXED");
    add("1", "MESSAGE", "RFC822");
    add("1.1", "MULTIPART", "ALTERNATIVE");
    add("1.1.1", "TEXT", "HTML");
    add("1.1.2", "TEXT", "PLAIN");
    add("2", "TEXT", "PLAIN", true);
    add("3", "TEXT", "CSV");
    s->m_numAttachments = 1;

    // The part found, or "none" with the id left as it was.
    auto best = [&](const char* from) {
        StringBuffer id(from);
        return s->findBestMsgPart(id) ? std::string(id.getString()) : std::string("none, ") + id.getString();
    };
    EXPECT_EQ(s->findMsgPart("4"), nullptr);
    EXPECT_EQ(best("1"), "1.1.2");      // plain text wins over HTML
    EXPECT_EQ(best("2"), "none, 2");    // attachments are never the displayable part
    EXPECT_EQ(best("3"), "3");
    EXPECT_EQ(best("1.1."), "none, 1.1.");  // not a part and has no part below it

    MemoryLog log;
    s->logMsgParts(log);
    EXPECT_EQ(*log.firstData("numAttachments"), "1");
    EXPECT_EQ(*log.lastData("part"), "3: TEXT/CSV; size=0");
    delete s;  // through the virtual destructor, parts included
}
