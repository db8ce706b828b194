// Shared pieces of the end-to-end tests of the zrimap tool: the test
// Dovecot's address, password handling, and checks of the tool's output.
#pragma once

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "CliTestSupport.h"
#include "ItSession.h"
#include "ToolRunner.h"

namespace zr {
namespace clitest {

using Json = nlohmann::json;
using it::env;

inline std::string imapPort() { return env("ZRIMAP_IMAP_PORT"); }

// Over plain IMAP: the TLS paths have tests of their own.
inline std::vector<std::string> server(const std::string& user) {
    if (imapPort().empty()) ADD_FAILURE() << "ZRIMAP_IMAP_PORT is not set: run this test through ctest";
    return {"--url", "imap://" + user + "@127.0.0.1:" + imapPort(), "--plain"};
}

// The password in the environment; no netrc of the machine's user can interfere.
inline RunOptions as(const std::string& user) {
    RunOptions o;
    o.env["ZRIMAP_PASSWORD"] = user + "-pw";
    o.env["NETRC"] = "/nonexistent/netrc";
    return o;
}

inline std::vector<std::string> cat(std::vector<std::string> a, const std::vector<std::string>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// zrimap GLOBAL --url ... --plain ARGS.
inline std::vector<std::string> argsFor(const std::string& user, const std::vector<std::string>& args,
                                        const std::vector<std::string>& global = {}) {
    return cat(cat(global, server(user)), args);
}
// The same as user, password from the environment.
inline RunResult tool(const std::string& user, const std::vector<std::string>& args,
                      const std::vector<std::string>& global = {}) {
    return runTool(argsFor(user, args, global), as(user));
}
inline RunResult toolJson(const std::string& user, const std::vector<std::string>& args) {
    return tool(user, args, {"--json"});
}

inline std::string describe(const RunResult& r) {
    return "exit " + std::to_string(r.exitCode) + (r.signal ? " signal " + std::to_string(r.signal) : "") +
           "\n--- stdout ---\n" + r.out.substr(0, 2000) + "\n--- stderr ---\n" + r.err;
}

#define EXPECT_TOOL_OK(r) EXPECT_EQ((r).exitCode, 0) << ::zr::clitest::describe(r)
#define ASSERT_TOOL_OK(r) ASSERT_EQ((r).exitCode, 0) << ::zr::clitest::describe(r)

// A failure as the tool promises it: the exit code, nothing on stdout, one
// line on stderr that starts with "zrimap: " and says what went wrong.
inline void expectCleanError(const RunResult& r, int code, const std::string& fragment) {
    EXPECT_EQ(r.exitCode, code) << describe(r);
    EXPECT_EQ(r.out, "") << describe(r);
    ASSERT_FALSE(r.err.empty());
    EXPECT_EQ(r.err.rfind("zrimap: ", 0), 0u) << r.err;
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << "more than one line: " << r.err;
    EXPECT_NE(r.err.find(fragment), std::string::npos) << "'" << fragment << "' not in: " << r.err;
}

inline Json parseJson(const RunResult& r) {
    try {
        return Json::parse(r.out);
    } catch (const std::exception& e) {
        ADD_FAILURE() << "not JSON (" << e.what() << "): " << describe(r);
        return Json();
    }
}

// A small RFC 5322 message with CRLF line ends, so the server keeps it byte for byte.
inline std::string sampleMessage(const std::string& subject, const std::string& body = "Hello.") {
    return "From: Bob <bob@localhost>\r\nTo: Bob <bob@localhost>\r\nSubject: " + subject +
           "\r\nDate: Mon, 01 Jan 2024 09:00:00 +0000\r\nMessage-ID: <" + subject +
           "@cli.test>\r\nMIME-Version: 1.0\r\nContent-Type: text/plain; charset=us-ascii\r\n\r\n" + body + "\r\n";
}

// Deletes what an earlier run of the same test may have left, then creates.
inline void freshMailbox(const std::string& user, const std::string& name) {
    tool(user, {"delete", name});
    RunResult r = tool(user, {"create", name});
    ASSERT_TOOL_OK(r);
}

// Appends a message given as text; the new UID.
inline uint32_t appendText(const std::string& user, const std::string& mailbox, const std::string& mime,
                           const std::vector<std::string>& extra = {}) {
    RunOptions o = as(user);
    o.input = mime;
    RunResult r = runTool(argsFor(user, cat({"append", mailbox, "-"}, extra), {"--json"}), o);
    EXPECT_EQ(r.exitCode, 0) << describe(r);
    Json j = parseJson(r);
    if (!j.is_object() || !j["uid"].is_number()) {
        ADD_FAILURE() << "no UID reported: " << r.out;
        return 0;
    }
    return j["uid"].get<uint32_t>();
}

}  // namespace clitest
}  // namespace zr
