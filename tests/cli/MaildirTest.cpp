// The Maildir side of `zrimap backup`, without a server.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "CliTestSupport.h"
#include "Maildir.h"

using namespace zr;
using namespace zr::cli;
using namespace zr::clitest;

namespace {

Message message(uint32_t uid, const std::string& text, Flags flags = {}, std::string date = "") {
    Message m;
    m.uid = uid;
    m.mime.assign(text.begin(), text.end());
    m.flags = std::move(flags);
    m.internalDate = std::move(date);
    return m;
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
    std::string dir = makeTempDir("maildir") + "/deeper/box";
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
    std::string dir = makeTempDir("maildir");
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
    std::string dir = makeTempDir("maildir");
    {
        MaildirBackup b(dir);
        b.prepare("INBOX", 100);
        b.store(message(1, "one"));
    }
    // Refused with exit code 1 and a message naming each of `parts`.
    auto refuses = [&](const std::string& mailbox, uint32_t uidValidity, std::vector<std::string> parts) {
        MaildirBackup b(dir);
        auto [code, text] = failure([&] { b.prepare(mailbox, uidValidity); });
        EXPECT_EQ(code, kExitFailed) << mailbox << " " << uidValidity;
        for (const std::string& part : parts) EXPECT_NE(text.find(part), std::string::npos) << text;
    };
    refuses("INBOX", 101, {"UIDVALIDITY", "100", "101"});
    EXPECT_EQ(readBackupState(dir)->uidValidity, 100u) << "a refused run must not rewrite the state";
    refuses("Sent", 100, {"\"INBOX\""});

    // Without the state file the names alone still reveal the old numbering.
    ASSERT_EQ(unlink((dir + "/.zrimap-backup").c_str()), 0);
    refuses("INBOX", 101, {});
    writeFile(dir + "/.zrimap-backup", "garbage\n");
    refuses("INBOX", 100, {"damaged"});
}

TEST(CliMaildirBackup, UnusableDirectoryIsALocalError) {
    std::string dir = makeTempDir("maildir");
    writeFile(dir + "/file", "x");
    MaildirBackup b(dir + "/file");
    EXPECT_EQ(failure([&] { b.prepare("INBOX", 1); }).first, kExitLocalIo);
}
