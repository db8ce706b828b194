// The zrimap tool end to end against the test Dovecot: logins and password
// sources, mailbox and message subcommands, JSON output, IDLE.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <set>

#include "CliItSupport.h"

using namespace zr::clitest;

namespace {

// alice's INBOX as the seeding recorded it.
std::vector<Json> seededInbox() {
    const std::string path = env("ZRIMAP_SEED_MANIFEST");
    std::ifstream in(path);
    if (!in) ADD_FAILURE() << "no seed manifest at '" << path << "': run through ctest";
    std::vector<Json> out;
    if (in)
        for (const Json& m : Json::parse(in))
            if (m["folder"] == "INBOX") out.push_back(m);
    return out;
}

std::set<std::string> mailboxNames(const Json& list) {
    std::set<std::string> names;
    for (const Json& b : list["mailboxes"]) names.insert(b["name"].get<std::string>());
    return names;
}

std::vector<uint32_t> uidsOf(const Json& j) { return j["uids"].get<std::vector<uint32_t>>(); }

}  // namespace

// --- logins and password sources ---------------------------------------------

TEST(CliLogin, PasswordFromTheEnvironment) {
    RunResult r = tool("bob", {"capabilities"});
    ASSERT_TOOL_OK(r);
    EXPECT_NE(r.out.find("IMAP4REV1\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("IDLE\n"), std::string::npos) << r.out;
    EXPECT_EQ(r.err, "");

    EXPECT_THAT(parseJson(toolJson("bob", {"capabilities"}))["capabilities"].get<std::vector<std::string>>(),
                ::testing::Contains("UIDPLUS"))
        << "the list after login";
}

TEST(CliLogin, PasswordAndUserFromANetrcFile) {
    std::string dir = makeTempDir("netrc");
    std::string netrc = dir + "/netrc";
    writeFile(netrc,
              "machine example.org login bob password wrong\n"
              "machine 127.0.0.1\n  login bob\n  password bob-pw\n");
    RunOptions o;
    o.env["NETRC"] = netrc;
    o.env["ZRIMAP_PASSWORD"] = std::nullopt;
    // No user in the URL: the netrc entry supplies it as well.
    RunResult r = runTool({"--url", "imap://127.0.0.1:" + imapPort(), "--plain", "status", "INBOX"}, o);
    EXPECT_TOOL_OK(r);
    EXPECT_NE(r.out.find("messages:"), std::string::npos);
}

TEST(CliLogin, PasswordFromStandardInput) {
    RunOptions o = as("bob");
    o.env["ZRIMAP_PASSWORD"] = std::nullopt;
    o.input = "bob-pw\n";
    EXPECT_TOOL_OK(runTool(argsFor("bob", {"capabilities"}, {"--password-stdin"}), o));
    o.input = "";
    expectCleanError(runTool(argsFor("bob", {"capabilities"}, {"--password-stdin"}), o), 4, "stdin");
}

// What --insecure and the URL's scheme turn into: CliSettings.UrlAndOptionsCombine;
// how the client verifies and names a refused certificate: ClientIT; a failed
// connection's exit code: CliErrors.UnreachableServerExitsWithThree.
TEST(CliLogin, TlsIsVerifiedAgainstTheCaFile) {
    // The server given piece by piece; --auth names the mechanism.
    EXPECT_TOOL_OK(runTool({"--host", "localhost", "--port", env("ZRIMAP_IMAPS_PORT"), "--user", "bob", "--tls",
                            "--ca-file", env("ZRIMAP_CA_FILE"), "--auth", "cram-md5", "capabilities"},
                           as("bob")));
}

TEST(CliLogin, SessionLogRecordsTheConversationWithoutThePassword) {
    std::string dir = makeTempDir("slog");
    std::string log = dir + "/session.log";
    RunResult r = tool("bob", {"list"}, {"--session-log", log, "--auth", "login"});
    ASSERT_TOOL_OK(r);
    std::string text = readFile(log);
    EXPECT_NE(text.find("LIST"), std::string::npos) << text;
    EXPECT_NE(text.find("* BYE"), std::string::npos) << "the log is written after the logout";
    EXPECT_EQ(text.find("bob-pw"), std::string::npos) << text;

    expectCleanError(tool("bob", {"list"}, {"--session-log", dir + "/no/such/dir/log"}), 5, "session log");
}

// --- mailboxes -----------------------------------------------------------------

TEST(CliMailboxes, CreateSubscribeRenameDelete) {
    const std::string a = "cli-mbx-a", b = "cli-mbx-b";
    tool("bob", {"delete", b});
    freshMailbox("bob", a);

    EXPECT_EQ(mailboxNames(parseJson(toolJson("bob", {"list"}))).count(a), 1u);
    RunResult sub = tool("bob", {"subscribe", a});
    EXPECT_TOOL_OK(sub);
    EXPECT_EQ(sub.out, "subscribed to \"cli-mbx-a\"\n");
    EXPECT_EQ(mailboxNames(parseJson(toolJson("bob", {"list", "cli-mbx-*", "--subscribed"}))),
              std::set<std::string>{a});
    EXPECT_TOOL_OK(tool("bob", {"unsubscribe", a}));

    RunResult ren = toolJson("bob", {"rename", a, b});
    ASSERT_TOOL_OK(ren);
    EXPECT_EQ(parseJson(ren)["to"], b);
    auto names = mailboxNames(parseJson(toolJson("bob", {"list", "cli-mbx-*"})));
    EXPECT_EQ(names, std::set<std::string>{b});

    Json st = parseJson(toolJson("bob", {"status", b}));
    EXPECT_EQ(st["messages"], 0);
    // Left out, MAILBOX is the one in the URL.
    RunResult fromUrl = runTool({"--json", "--url", "imap://bob@127.0.0.1:" + imapPort() + "/" + b, "--plain", "status"},
                                as("bob"));
    ASSERT_TOOL_OK(fromUrl);
    EXPECT_EQ(parseJson(fromUrl)["mailbox"], b);
    EXPECT_GT(st["uidvalidity"].get<uint32_t>(), 0u);
    RunResult sel = tool("bob", {"select", b});
    EXPECT_TOOL_OK(sel);
    EXPECT_NE(sel.out.find("exists:      0\n"), std::string::npos) << sel.out;
    EXPECT_NE(sel.out.find("read-only:   no\n"), std::string::npos) << sel.out;
    Json ro = parseJson(toolJson("bob", {"select", b, "--read-only"}));
    EXPECT_EQ(ro["read_only"], true);

    EXPECT_TOOL_OK(tool("bob", {"delete", b}));
    expectCleanError(tool("bob", {"delete", b}), 1, "cannot delete \"cli-mbx-b\"");
}

// The names' coding itself: ClientUnitTest and ClientIT.
TEST(CliMailboxes, SeededNamesComeBackAsUtf8) {
    Json j = parseJson(toolJson("alice", {"list"}));
    bool found = false;
    for (const Json& b : j["mailboxes"]) {
        if (b["name"] == "Entwürfe") found = b["raw_name"] == "Entw&APw-rfe";
    }
    EXPECT_TRUE(found) << j.dump();
    RunResult text = tool("alice", {"list", "%"});
    ASSERT_TOOL_OK(text);
    EXPECT_EQ(text.out.find("Work/Projects"), std::string::npos) << "% stops at the separator";
    EXPECT_NE(text.out.find("Work\t"), std::string::npos) << text.out;
    Json st = parseJson(toolJson("alice", {"status", "日本語"}));
    EXPECT_EQ(st["messages"], 1);
}

// --- alice's seeded mail, read only ------------------------------------------

TEST(CliSeeded, StatusAndSearchAgreeWithTheManifest) {
    auto inbox = seededInbox();
    ASSERT_EQ(inbox.size(), 10u);
    std::vector<uint32_t> all;
    size_t unseen = 0;
    for (const Json& m : inbox) {
        all.push_back(m["uid"]);
        unseen += !m["flags"].is_string() || m["flags"].get<std::string>().find("\\Seen") == std::string::npos;
    }
    std::sort(all.begin(), all.end());

    Json st = parseJson(toolJson("alice", {"status", "INBOX"}));
    EXPECT_EQ(st["messages"], 10);
    EXPECT_EQ(st["unseen"], unseen);
    EXPECT_EQ(uidsOf(parseJson(toolJson("alice", {"search", "INBOX"}))), all);

    // Several words: the one with a space is quoted on the way out.
    RunResult kickoff = tool("alice", {"search", "INBOX", "SUBJECT", "Project kickoff"});
    ASSERT_TOOL_OK(kickoff);
    EXPECT_EQ(kickoff.out, "8\n9\n10\n");
    RunResult umlaut = tool("alice", {"search", "INBOX", "BODY", "Grüße"});
    ASSERT_TOOL_OK(umlaut);
    EXPECT_EQ(umlaut.out, "2\n") << "non-ASCII criteria go out as UTF-8";
    // Reading must not have marked anything \Seen.
    EXPECT_EQ(parseJson(toolJson("alice", {"status", "INBOX"}))["unseen"], unseen);
}

TEST(CliSeeded, FetchWritesEachMessageAsTheServerHasIt) {
    std::string dir = makeTempDir("fetch") + "/out";
    RunResult r = toolJson("alice", {"fetch", "INBOX", "1:*", "--out", dir});
    ASSERT_TOOL_OK(r);
    Json j = parseJson(r);
    ASSERT_EQ(j["messages"].size(), 10u);
    for (const Json& m : seededInbox()) {
        std::string path = dir + "/" + std::to_string(m["uid"].get<uint32_t>()) + ".eml";
        std::string data = readFile(path);
        EXPECT_EQ(data.size(), m["size"].get<size_t>()) << path;
        EXPECT_NE(data.find("Message-ID: <" + m["message_id"].get<std::string>() + ">"), std::string::npos) << path;
    }
    EXPECT_EQ(listDir(dir).size(), 10u) << "no temporary files left behind";

    // Flags and dates come along in the JSON.
    for (const Json& m : j["messages"]) {
        if (m["uid"] == 4) {
            EXPECT_THAT(m["flags"].get<std::vector<std::string>>(), ::testing::Contains("\\Flagged"));
        }
        EXPECT_FALSE(m["internal_date"].get<std::string>().empty());
        EXPECT_EQ(m["attachments_left_out"], false);
    }

    // Message 5 has three attachments; the text part stays.
    Json slim = parseJson(toolJson("alice", {"fetch", "INBOX", "5", "--without-attachments", "--out", dir + "-slim"}));
    ASSERT_EQ(slim["messages"].size(), 1u);
    EXPECT_EQ(slim["messages"][0]["attachments_left_out"], true);
    const std::string full = readFile(dir + "/5.eml"), text = readFile(dir + "-slim/5.eml");
    EXPECT_LT(text.size() * 10, full.size());
    EXPECT_NE(text.find("Three attachments"), std::string::npos);
}

TEST(CliSeeded, StructureAndOneAttachment) {
    Json s = parseJson(toolJson("alice", {"structure", "INBOX", "5"}));
    std::string pdfPart;
    std::set<std::string> attachments;
    for (const Json& p : s["parts"]) {
        if (p["attachment"] == true) attachments.insert(p["filename"].get<std::string>());
        if (p["filename"] == "report.pdf") pdfPart = p["part"];
    }
    EXPECT_EQ(attachments, (std::set<std::string>{"report.pdf", "pixel.png", "Notizen über Ärger.txt"}));
    ASSERT_FALSE(pdfPart.empty());

    std::string dir = makeTempDir("part");
    RunResult r = tool("alice", {"part", "INBOX", "5", pdfPart, "--out", dir + "/report.pdf"});
    ASSERT_TOOL_OK(r);
    std::string pdf = readFile(dir + "/report.pdf");
    EXPECT_EQ(pdf.size(), 30015u);
    EXPECT_EQ(pdf.rfind("%PDF-1.4\n", 0), 0u);

    RunResult toStdout = tool("alice", {"part", "INBOX", "5", pdfPart});
    ASSERT_TOOL_OK(toStdout);
    EXPECT_EQ(toStdout.out, pdf);
    RunResult raw = tool("alice", {"part", "INBOX", "5", pdfPart, "--raw"});
    ASSERT_TOOL_OK(raw);
    EXPECT_EQ(raw.out.rfind("JVBERi0xLjQK", 0), 0u) << "--raw keeps the base64";
    Json inJson = parseJson(toolJson("alice", {"part", "INBOX", "5", pdfPart}));
    EXPECT_EQ(inJson["size"], 30015);
    EXPECT_EQ(inJson["data_base64"].get<std::string>().size(), (30015u + 2) / 3 * 4);
}

// --- bob's own mailboxes: messages and flags ----------------------------------

// Structure and parts of a stored message: CliSeeded.StructureAndOneAttachment.
TEST(CliMessages, AppendThenFetchGivesTheSameBytes) {
    const std::string box = "cli-msg-roundtrip";
    freshMailbox("bob", box);
    std::string mime = sampleMessage("roundtrip");
    std::string dir = makeTempDir("roundtrip");
    writeFile(dir + "/in.eml", mime);

    RunResult app = toolJson("bob", {"append", box, dir + "/in.eml", "--flag", "\\Seen", "$Cli", "--date",
                                     "17-Jul-1996 02:44:25 -0700"});
    ASSERT_TOOL_OK(app);
    Json a = parseJson(app);
    ASSERT_TRUE(a["uid"].is_number());
    uint32_t uid = a["uid"];
    EXPECT_EQ(a["size"], mime.size());

    Json f = parseJson(toolJson("bob", {"fetch", box, std::to_string(uid), "--out", dir + "/out"}));
    EXPECT_EQ(readFile(dir + "/out/" + std::to_string(uid) + ".eml"), mime);
    ASSERT_EQ(f["messages"].size(), 1u);
    // The same moment; a server may keep the zone or give it in UTC.
    std::string date = f["messages"][0]["internal_date"];
    EXPECT_TRUE(date == "17-Jul-1996 02:44:25 -0700" || date == "17-Jul-1996 09:44:25 +0000") << date;
    auto flags = f["messages"][0]["flags"].get<std::set<std::string>>();
    EXPECT_EQ(flags.count("\\Seen"), 1u);
    EXPECT_EQ(flags.count("$Cli"), 1u);
}

TEST(CliMessages, FlagsCopyAndMove) {
    const std::string box = "cli-msg-ops", other = "cli-msg-ops-to";
    freshMailbox("bob", box);
    freshMailbox("bob", other);
    uint32_t one = appendText("bob", box, sampleMessage("ops-one"), {"--flag", "\\Seen"});
    uint32_t two = appendText("bob", box, sampleMessage("ops-two"));
    ASSERT_NE(one, 0u);
    ASSERT_NE(two, 0u);

    RunResult changed = toolJson("bob", {"flags", box, "1:*", "--add", "\\Flagged", "$Cli", "--remove", "\\Seen"});
    ASSERT_TOOL_OK(changed);
    Json c = parseJson(changed);
    ASSERT_EQ(c["messages"].size(), 2u);
    for (const Json& m : c["messages"]) {
        std::set<std::string> f = m["flags"].get<std::set<std::string>>();
        EXPECT_EQ(f.count("\\Flagged"), 1u);
        EXPECT_EQ(f.count("$Cli"), 1u);
        EXPECT_EQ(f.count("\\Seen"), 0u);
    }
    RunResult shown = tool("bob", {"flags", box, std::to_string(one)});
    ASSERT_TOOL_OK(shown);
    EXPECT_EQ(shown.out.rfind(std::to_string(one) + "\t", 0), 0u) << shown.out;
    EXPECT_NE(shown.out.find("\\Flagged"), std::string::npos) << shown.out;

    RunResult copied = tool("bob", {"copy", box, std::to_string(one), other});
    ASSERT_TOOL_OK(copied);
    EXPECT_EQ(copied.out, "copied 1 message from \"cli-msg-ops\" to \"cli-msg-ops-to\"\n");
    EXPECT_EQ(uidsOf(parseJson(toolJson("bob", {"search", box}))), (std::vector<uint32_t>{one, two}));

    ASSERT_TOOL_OK(tool("bob", {"move", box, std::to_string(two), other}));
    EXPECT_EQ(uidsOf(parseJson(toolJson("bob", {"search", box}))), (std::vector<uint32_t>{one}));
    EXPECT_EQ(parseJson(toolJson("bob", {"status", other}))["messages"], 2);
}

// --- IDLE -----------------------------------------------------------------------

TEST(CliIdle, NoticesAMessageAppendedByAnotherProcess) {
    const std::string box = "cli-idle";
    freshMailbox("bob", box);
    appendText("bob", box, sampleMessage("idle-before"));

    RunOptions o = as("bob");
    o.timeoutSeconds = 60;
    ToolProcess idle(argsFor("bob", {"idle", box, "--count", "1", "--timeout", "30"}, {"--json"}), o);
    ASSERT_TRUE(idle.waitFor("idling on " + box, 20)) << "IDLE did not start";
    appendText("bob", box, sampleMessage("idle-news"));
    RunResult r = idle.finish();
    ASSERT_TOOL_OK(r);
    // One JSON object per line, the first of them the new message count.
    ASSERT_FALSE(r.out.empty());
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 1) << r.out;
    Json event = Json::parse(r.out.substr(0, r.out.find('\n')));
    EXPECT_EQ(event["event"], "exists");
    EXPECT_EQ(event["number"], 2);
}

TEST(CliIdle, TextEventsUntilCtrlC) {
    const std::string box = "cli-idle-text";
    freshMailbox("bob", box);
    uint32_t uid = appendText("bob", box, sampleMessage("idle-flags"));

    ToolProcess idle(argsFor("bob", {"idle", box}), as("bob"));
    ASSERT_TRUE(idle.waitFor("idling on", 20));
    ASSERT_TOOL_OK(tool("bob", {"flags", box, std::to_string(uid), "--add", "\\Flagged"}));
    EXPECT_TRUE(idle.waitFor("\\Flagged", 20, true));
    idle.kill(SIGINT);
    RunResult r = idle.finish();
    EXPECT_EQ(r.exitCode, 0) << describe(r);
    EXPECT_EQ(r.out.rfind("flags 1", 0), 0u) << r.out;
}

TEST(CliIdle, CountNotReachedWithinTheTimeOut) {
    const std::string box = "cli-idle-quiet";
    freshMailbox("bob", box);
    auto start = std::chrono::steady_clock::now();
    RunResult quiet = tool("bob", {"idle", box, "--count", "1", "--timeout", "1"});
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_EQ(quiet.exitCode, 1) << describe(quiet);
    EXPECT_NE(quiet.err.find("zrimap: idle: 0 of 1 events within 1 seconds"), std::string::npos) << quiet.err;
}

// --- help and version ------------------------------------------------------------

// What each help text says: CliOptions.EveryCommandHasHelp.
TEST(CliHelp, HelpAndVersionNeedNoServer) {
    const std::pair<std::vector<std::string>, const char*> cases[] = {
        {{"--help"}, "Exit codes:"},
        {{"help", "backup"}, "usage: zrimap [OPTIONS] backup MAILBOX DIR"},
        {{"fetch", "--help"}, "--without-attachments"},
        {{"--version"}, "zrimap "},
    };
    for (const auto& [args, text] : cases) {
        RunResult r = runTool(args);
        EXPECT_TOOL_OK(r);
        EXPECT_NE(r.out.find(text), std::string::npos) << args[0] << ": " << r.out;
    }
}
