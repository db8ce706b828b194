// The tool through an SSH tunnel: the test sshd forwards to the test Dovecot.
#include <gtest/gtest.h>

#include "CliItSupport.h"

using namespace zr::clitest;

namespace {

std::vector<std::string> tunnel(std::vector<std::string> extra) {
    if (env("ZRIMAP_SSH_PORT").empty()) ADD_FAILURE() << "ZRIMAP_SSH_PORT is not set: run this test through ctest";
    std::vector<std::string> args{"--ssh-host", "127.0.0.1", "--ssh-port", env("ZRIMAP_SSH_PORT"), "--ssh-user",
                                  "imaptest",   "--url",     "imaps://bob@127.0.0.1:" + env("ZRIMAP_IMAPS_PORT"),
                                  "--ca-file",  env("ZRIMAP_CA_FILE")};
    return cat(args, extra);
}

std::string key() { return env("ZRIMAP_SSHD_DIR") + "/client_ed25519"; }

}  // namespace

TEST(CliSsh, KeyOrPasswordTunnel) {
    RunResult withKey = runTool(tunnel({"--ssh-key", key(), "status", "INBOX"}), as("bob"));
    EXPECT_TOOL_OK(withKey);
    EXPECT_NE(withKey.out.find("messages:"), std::string::npos);

    RunOptions o = as("bob");
    o.env["ZRIMAP_SSH_PASSWORD"] = "imaptest-pw";
    EXPECT_TOOL_OK(runTool(tunnel({"capabilities"}), o));
}

// A tunnel without credentials: CliSettings.SshTunnelSettings; a refused host
// key, named: ClientSshIT.KeyTunnelAndRefusalsNameTheirCause.
TEST(CliSsh, RefusalsAreConnectionOrLoginFailures) {
    RunOptions wrongSsh = as("bob");
    wrongSsh.env["ZRIMAP_SSH_PASSWORD"] = "wrong-pw";
    expectCleanError(runTool(tunnel({"capabilities"}), wrongSsh), 3, "cannot connect");

    // The tunnel stands; the IMAP login behind it is what fails.
    RunOptions wrongImap = as("bob");
    wrongImap.env["ZRIMAP_PASSWORD"] = "not-bobs";
    expectCleanError(runTool(tunnel({"--ssh-key", key(), "capabilities"}), wrongImap), 4, "login as bob failed");
}
