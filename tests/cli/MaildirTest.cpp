// The Maildir side of `zrimap backup`, without a server.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "CliError.h"
#include "Maildir.h"

using namespace zr;
using namespace zr::cli;

namespace {

std::string makeTempDir() {
    std::string tmpl = ::testing::TempDir() + "/cli-maildir-XXXXXX";
    char* made = mkdtemp(tmpl.data());
    EXPECT_NE(made, nullptr);
    return tmpl;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

void writeFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary);
    out << text;
}

Message message(uint32_t uid, const std::string& text, Flags flags = {}, std::string date = "") {
    Message m;
    m.uid = uid;
    m.mime.assign(text.begin(), text.end());
    m.flags = std::move(flags);
    m.internalDate = std::move(date);
    return m;
}

int failureCode(const std::function<void()>& f, std::string* text = nullptr) {
    try {
        f();
    } catch (const CliError& e) {
        if (text) *text = e.what();
        return e.code();
    }
    return 0;
}

}  // namespace

TEST(CliMaildirNames, CarryUidAndUidValidity) {
    EXPECT_EQ(maildirFileName(42, 1700000000, {"\\Seen", "\\Answered", "\\Flagged", "$Label1"}),
              "0000000042.1700000000.zrimap:2,FRS");
    EXPECT_EQ(maildirFlagLetters({"\\Deleted", "\\Draft", "\\seen"}), "DST");
    auto parsed = parseMaildirFileName("0000000042.1700000000.zrimap:2,FRS");
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->uid, 42u);
    EXPECT_EQ(parsed->uidValidity, 1700000000u);
    // A mail reader may rewrite the info part, or a file may sit in new/ without it.
    EXPECT_TRUE(parseMaildirFileName("0000000042.1700000000.zrimap:2,"));
    EXPECT_TRUE(parseMaildirFileName("0000000042.1700000000.zrimap"));
    for (const char* other : {"1700000000.M1P2.host:2,S", "0000000000.1.zrimap", "42.17.zrimapx", "x.1.zrimap",
                              "99999999999.1.zrimap", "42..zrimap"})
        EXPECT_FALSE(parseMaildirFileName(other)) << other;
}

TEST(CliMaildirNames, InternalDates) {
    EXPECT_EQ(parseInternalDate("17-Jul-1996 02:44:25 -0700"), std::optional<std::time_t>(837596665));
    EXPECT_EQ(parseInternalDate(" 1-Jan-2024 12:00:00 +0000"), std::optional<std::time_t>(1704110400));
    EXPECT_EQ(parseInternalDate("01-Jan-2024 13:30:00 +0130"), std::optional<std::time_t>(1704110400));
    for (const char* bad : {"", "17-Jux-1996 02:44:25 -0700", "17-Jul-1996 02:44:25", "17-Jul-1996 25:00:00 +0000",
                            "17-Jul-1996 02:44:25 -07", "17/Jul/1996 02:44:25 -0700"})
        EXPECT_FALSE(parseInternalDate(bad)) << bad;
}

TEST(CliMaildirBackup, StoresIntoCurThroughTmp) {
    std::string dir = makeTempDir() + "/deeper/box";
    MaildirBackup b(dir);
    b.prepare("INBOX", 777);
    for (const char* sub : {"/cur", "/new", "/tmp"}) {
        struct stat st {};
        EXPECT_EQ(stat((dir + sub).c_str(), &st), 0) << sub;
    }
    auto state = readBackupState(dir);
    ASSERT_TRUE(state);
    EXPECT_EQ(state->mailbox, "INBOX");
    EXPECT_EQ(state->uidValidity, 777u);

    std::string path = b.store(message(3, "Subject: x\r\n\r\nbody\r\n", {"\\Seen"}, "01-Jan-2024 12:00:00 +0000"));
    EXPECT_EQ(path, dir + "/cur/0000000003.777.zrimap:2,S");
    EXPECT_EQ(readFile(path), "Subject: x\r\n\r\nbody\r\n");
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mtime, 1704110400) << "the file time is the message's internal date";
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_TRUE(b.storedUids().count(3));
    EXPECT_EQ(rmdir((dir + "/tmp").c_str()), 0) << "tmp/ must be empty again";
}

TEST(CliMaildirBackup, ResumesFromWhatIsThere) {
    std::string dir = makeTempDir();
    {
        MaildirBackup first(dir);
        first.prepare("Work", 5);
        first.store(message(1, "one"));
        first.store(message(2, "two"));
    }
    // A reader moved one to new/ and renamed its flags; another program left a file of its own.
    ASSERT_EQ(rename((dir + "/cur/0000000002.5.zrimap:2,").c_str(), (dir + "/new/0000000002.5.zrimap").c_str()), 0);
    writeFile(dir + "/cur/1700000000.M1P2.host:2,S", "foreign");
    // Half a message from an interrupted run, and someone else's delivery in progress.
    writeFile(dir + "/tmp/0000000003.5.zrimap:2,", "hal");
    writeFile(dir + "/tmp/1700000001.M9P9.host", "theirs");

    MaildirBackup again(dir);
    again.prepare("Work", 5);
    EXPECT_EQ(again.storedUids(), (std::set<uint32_t>{1, 2}));
    EXPECT_EQ(again.removedLeftovers(), 1);
    EXPECT_NE(access((dir + "/tmp/0000000003.5.zrimap:2,").c_str(), F_OK), 0);
    EXPECT_EQ(readFile(dir + "/tmp/1700000001.M9P9.host"), "theirs");
    EXPECT_EQ(readFile(dir + "/cur/1700000000.M1P2.host:2,S"), "foreign");
}

TEST(CliMaildirBackup, RefusesAnotherNumberingOrMailbox) {
    std::string dir = makeTempDir();
    {
        MaildirBackup b(dir);
        b.prepare("INBOX", 100);
        b.store(message(1, "one"));
    }
    std::string text;
    MaildirBackup renumbered(dir);
    EXPECT_EQ(failureCode([&] { renumbered.prepare("INBOX", 101); }, &text), kExitFailed);
    EXPECT_NE(text.find("UIDVALIDITY"), std::string::npos);
    EXPECT_NE(text.find("100"), std::string::npos);
    EXPECT_NE(text.find("101"), std::string::npos);
    EXPECT_EQ(readBackupState(dir)->uidValidity, 100u) << "a refused run must not rewrite the state";

    MaildirBackup other(dir);
    EXPECT_EQ(failureCode([&] { other.prepare("Sent", 100); }, &text), kExitFailed);
    EXPECT_NE(text.find("\"INBOX\""), std::string::npos);

    // Without the state file the names alone still reveal the old numbering.
    ASSERT_EQ(unlink((dir + "/.zrimap-backup").c_str()), 0);
    MaildirBackup noState(dir);
    EXPECT_EQ(failureCode([&] { noState.prepare("INBOX", 101); }), kExitFailed);

    writeFile(dir + "/.zrimap-backup", "garbage\n");
    MaildirBackup damaged(dir);
    EXPECT_EQ(failureCode([&] { damaged.prepare("INBOX", 100); }, &text), kExitFailed);
    EXPECT_NE(text.find("damaged"), std::string::npos);
}

TEST(CliMaildirBackup, UnusableDirectoryIsALocalError) {
    std::string dir = makeTempDir();
    writeFile(dir + "/file", "x");
    MaildirBackup b(dir + "/file");
    EXPECT_EQ(failureCode([&] { b.prepare("INBOX", 1); }), kExitLocalIo);
}
