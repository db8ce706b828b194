// The engine against a scripted server, as the protocol tests drive it.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "ScriptedServer.h"
#include "zrimap/auth/Settings.h"
#include "zrimap/engine.h"

namespace zr::test {

// Records the progress events, one "name value" per line, and aborts on demand.
struct RecordingEvents : ProgressEvent {
    std::string all;
    bool abortNow = false;
    void onProgressInfo(const char* name, const char* value) override { all += std::string(name) + " " + value + "\n"; }
    bool onAbortCheck() override { return abortNow; }
};

class EngineTest : public ::testing::Test {
protected:
    ScriptedServer server;
    _zrImap imap;
    MemoryLog log;
    _clsTls tls;
    RecordingEvents events;
    ProgressMonitor pm{&events};
    SocketParams sp{&pm};
    StringBuffer greeting;
    bool started = false;

    // Every started script must have been played to its end.
    void TearDown() override {
        if (started) {
            EXPECT_TRUE(server.finish()) << server.report();
        }
    }
    void startServer() {
        server.start();
        started = true;
    }
    bool connect() {
        return imap.connectToImapServer(StringBuffer("127.0.0.1"), server.port(), greeting, tls, sp, log);
    }
    // Starts the script, which must begin with a greeting, and connects.
    void start() {
        startServer();
        ASSERT_TRUE(connect()) << log.toText();
    }
    bool noop(ImapResultSet& rs) { return imap.cmdNoArgs("NOOP", rs, log, sp); }
    std::string lastCommand() {
        StringBuffer sb;
        imap.getLastCommand(sb);
        return sb.getString();
    }
};

// The same, with the greeting already scripted.
class GreetedEngineTest : public EngineTest {
protected:
    void SetUp() override { server.send("* OK\r\n"); }
};

}  // namespace zr::test
