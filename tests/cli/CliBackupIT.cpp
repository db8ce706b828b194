// `zrimap backup` end to end: a Maildir that grows with the mailbox, survives
// an interruption at the worst moment, and refuses a renumbered mailbox. The
// Maildir rules themselves (names, state, leftovers, another mailbox) are
// pinned in-process by MaildirTest.
#include <gtest/gtest.h>
#include <signal.h>

#include <map>

#include "CliItSupport.h"

using namespace zr::clitest;

namespace {

// Message files of a backup by UID, from the names alone.
std::map<uint32_t, std::string> storedFiles(const std::string& dir, const char* sub = "cur") {
    std::map<uint32_t, std::string> byUid;
    for (const std::string& name : listDir(dir + "/" + sub)) {
        uint32_t uid = static_cast<uint32_t>(std::stoul(name.substr(0, name.find('.'))));
        EXPECT_EQ(byUid.count(uid), 0u) << "UID " << uid << " stored twice";
        byUid[uid] = dir + "/" + sub + "/" + name;
    }
    return byUid;
}

// Appends count messages of some size; their text by UID.
std::map<uint32_t, std::string> fill(const std::string& box, int count, const std::string& tag) {
    std::map<uint32_t, std::string> sent;
    for (int i = 0; i < count; ++i) {
        std::string body(2000 + i * 100, static_cast<char>('a' + i % 26));
        std::string mime = sampleMessage(tag + "-" + std::to_string(i), body);
        uint32_t uid = appendText("bob", box, mime);
        sent[uid] = mime;
    }
    return sent;
}

RunResult backup(const std::string& box, const std::string& dir, RunOptions o = as("bob")) {
    return runTool(argsFor("bob", {"backup", box, dir}, {"--json"}), o);
}

}  // namespace

TEST(CliBackup, SecondRunFetchesOnlyWhatIsNew) {
    const std::string box = "cli-bk-incremental";
    freshMailbox("bob", box);
    auto sent = fill(box, 3, "inc");
    ASSERT_EQ(sent.size(), 3u);
    std::string dir = makeTempDir("bk-inc") + "/maildir";

    RunResult first = backup(box, dir);
    ASSERT_TOOL_OK(first);
    Json j1 = parseJson(first);
    EXPECT_EQ(j1["downloaded"].size(), 3u);
    EXPECT_EQ(j1["already_stored"], 0);
    auto files = storedFiles(dir);
    ASSERT_EQ(files.size(), 3u);
    for (const auto& [uid, mime] : sent) {
        ASSERT_EQ(files.count(uid), 1u) << uid;
        EXPECT_EQ(readFile(files[uid]), mime) << "UID " << uid;
    }
    EXPECT_EQ(listDir(dir + "/tmp").size(), 0u);
    EXPECT_EQ(listDir(dir + "/new").size(), 0u);
    std::string state = readFile(dir + "/.zrimap-backup");
    EXPECT_NE(state.find("mailbox " + box + "\n"), std::string::npos) << state;
    EXPECT_NE(state.find("uidvalidity " + std::to_string(j1["uidvalidity"].get<uint32_t>()) + "\n"),
              std::string::npos)
        << state;

    Json again = parseJson(backup(box, dir));
    EXPECT_EQ(again["downloaded"].size(), 0u);
    EXPECT_EQ(again["already_stored"], 3);

    // The server's flags become Maildir letters.
    const std::string flagged = sampleMessage("inc-new");
    uint32_t newUid = appendText("bob", box, flagged, {"--flag", "\\Seen", "\\Flagged"});
    Json third = parseJson(backup(box, dir));
    EXPECT_EQ(third["downloaded"], Json::array({newUid}));
    files = storedFiles(dir);
    EXPECT_EQ(files.size(), 4u);
    EXPECT_EQ(readFile(files[newUid]), flagged);
    EXPECT_NE(files[newUid].find(".zrimap:2,FS"), std::string::npos) << files[newUid];

    // Text output for people.
    RunResult text = tool("bob", {"backup", box, dir});
    ASSERT_TOOL_OK(text);
    EXPECT_NE(text.out.find(": 0 downloaded, 4 already there, 4 on the server"), std::string::npos) << text.out;
}

TEST(CliBackup, KilledHalfwayResumesWithoutLossOrDuplicates) {
    const std::string box = "cli-bk-crash";
    freshMailbox("bob", box);
    auto sent = fill(box, 6, "crash");
    ASSERT_EQ(sent.size(), 6u);
    std::string dir = makeTempDir("bk-crash");

    // The hook kills the process with SIGKILL after two messages, halfway
    // through writing the third: nothing gets to clean up.
    RunOptions o = as("bob");
    o.env["ZRIMAP_TEST_BACKUP_CRASH_AFTER"] = "2";
    RunResult killed = backup(box, dir, o);
    EXPECT_EQ(killed.signal, SIGKILL) << describe(killed);
    auto partial = storedFiles(dir);
    EXPECT_EQ(partial.size(), 2u);
    for (const auto& [uid, path] : partial) EXPECT_EQ(readFile(path), sent[uid]) << "only whole messages in cur/";
    auto half = listDir(dir + "/tmp");
    ASSERT_EQ(half.size(), 1u) << "the half-written message stays in tmp/";
    std::string halfText = readFile(dir + "/tmp/" + half[0]);
    EXPECT_LT(halfText.size(), sent[static_cast<uint32_t>(std::stoul(half[0]))].size());

    RunResult resumed = backup(box, dir);
    ASSERT_TOOL_OK(resumed);
    Json j = parseJson(resumed);
    EXPECT_EQ(j["already_stored"], 2);
    EXPECT_EQ(j["downloaded"].size(), 4u);
    EXPECT_EQ(j["leftovers_removed"], 1);
    auto files = storedFiles(dir);
    ASSERT_EQ(files.size(), sent.size());
    for (const auto& [uid, mime] : sent) EXPECT_EQ(readFile(files[uid]), mime) << "UID " << uid;
    EXPECT_EQ(listDir(dir + "/tmp").size(), 0u);
}

TEST(CliBackup, RenumberedMailboxIsRefused) {
    const std::string box = "cli-bk-uidvalidity";
    freshMailbox("bob", box);
    fill(box, 2, "uv");
    std::string dir = makeTempDir("bk-uv");
    Json first = parseJson(backup(box, dir));
    uint32_t before = first["uidvalidity"];
    auto filesBefore = storedFiles(dir);
    ASSERT_EQ(filesBefore.size(), 2u);

    // Deleting and re-creating gives the mailbox a new UIDVALIDITY; UID 1 now
    // names a different message.
    freshMailbox("bob", box);
    fill(box, 1, "uv-new");
    uint32_t after = parseJson(toolJson("bob", {"status", box}))["uidvalidity"];
    ASSERT_NE(before, after) << "precondition: the server renumbered the mailbox";

    // The refusal's text: CliMaildirBackup.RefusesAnotherNumberingOrMailbox.
    expectCleanError(tool("bob", {"backup", box, dir}), 1, "UIDVALIDITY");
    EXPECT_EQ(storedFiles(dir), filesBefore) << "the old backup is left as it was";
}
