// Bad input and failures: each one line on stderr and its own exit code. What
// the parser refuses and why (subcommand usage, passwords as arguments) is
// pinned in-process by CliUnitTest; here the tool shows it as promised.
#include <gtest/gtest.h>

#include "CliItSupport.h"

using namespace zr::clitest;

namespace {

std::string closedPort() { return std::to_string(zr::it::closedPort()); }

}  // namespace

TEST(CliErrors, UsageMistakesExitWithTwo) {
    expectCleanError(runTool({"frobnicate"}), 2, "unknown subcommand 'frobnicate'");
    expectCleanError(runTool({"--url", "imap://bob@127.0.0.1:1"}), 2, "no subcommand");
    expectCleanError(runTool({"--url", "imap//127.0.0.1", "capabilities"}, as("bob")), 2, "malformed URL");
    expectCleanError(tool("bob", {"append", "INBOX", "/dev/null", "--date", "yesterday"}), 2, "--date");
    expectCleanError(tool("bob", {"append", "INBOX", "-"}, {"--password-stdin"}), 2, "standard input");
}

TEST(CliErrors, WrongOrMissingPasswordExitsWithFour) {
    RunOptions wrong = as("bob");
    wrong.env["ZRIMAP_PASSWORD"] = "not-the-password";
    expectCleanError(runTool(argsFor("bob", {"capabilities"}), wrong), 4, "login as bob failed");

    RunOptions none = as("bob");
    none.env["ZRIMAP_PASSWORD"] = std::nullopt;
    expectCleanError(runTool(argsFor("bob", {"capabilities"}), none), 4, "no password for bob@127.0.0.1");
}

TEST(CliErrors, UnreachableServerExitsWithThree) {
    std::string port = closedPort();
    RunResult r = runTool({"--url", "imap://bob@127.0.0.1:" + port, "--plain", "capabilities"}, as("bob"));
    expectCleanError(r, 3, "cannot connect to 127.0.0.1:" + port);
}

TEST(CliErrors, UnknownMailboxOrMessageExitsWithOne) {
    expectCleanError(tool("bob", {"select", "cli-no-such-box"}), 1, "cli-no-such-box");
    expectCleanError(tool("bob", {"status", "cli-no-such-box"}), 1, "cli-no-such-box");
    expectCleanError(tool("bob", {"fetch", "cli-no-such-box", "1"}), 1, "cli-no-such-box");
    expectCleanError(tool("bob", {"backup", "cli-no-such-box", makeTempDir("err-bk")}), 1, "cli-no-such-box");

    const std::string box = "cli-err-empty";
    freshMailbox("bob", box);
    expectCleanError(tool("bob", {"fetch", box, "999"}), 1, "999");
    expectCleanError(tool("bob", {"fetch", box, "1:*"}), 1, "no messages");
    expectCleanError(tool("bob", {"copy", box, "5", "cli-no-such-box"}), 1, "no message with UID 5");
    expectCleanError(tool("bob", {"flags", box, "7", "--add", "\\Seen"}), 1, "no message with UID 7");
}

TEST(CliErrors, UnreadableFilesExitWithFiveBeforeAnyConnection) {
    std::string dir = makeTempDir("err-files");
    expectCleanError(tool("bob", {"append", "INBOX", dir + "/missing.eml"}), 5, "cannot read " + dir + "/missing.eml");
    expectCleanError(tool("bob", {"append", "INBOX", dir}), 5, "is a directory");
    // The file is checked first: even with no server to reach the answer is 5.
    RunResult r = runTool({"--url", "imap://bob@127.0.0.1:" + closedPort(), "--plain", "append", "INBOX",
                           dir + "/missing.eml"},
                          as("bob"));
    expectCleanError(r, 5, "missing.eml");

    writeFile(dir + "/blocker", "x");
    expectCleanError(tool("bob", {"fetch", "INBOX", "1", "--out", dir + "/blocker/sub"}), 5, "blocker");
    expectCleanError(tool("bob", {"capabilities"}, {"--ca-file", dir + "/nope.pem"}), 5, "CA file");
}
