// ImapClient against a scripted server: the decisions a real test server
// cannot be made to provoke (LOGINDISABLED, a refused STARTTLS, a server
// without MOVE, a stalled response) and the exact wire text they produce.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "ClientDetail.h"
#include "ScriptedServer.h"
#include "zrimap/base/ContentCoding.h"
#include "zrimap/base/StringBuffer.h"
#include "zrimap/client.h"

using namespace zr;
using zr::test::ScriptedServer;
using namespace std::chrono_literals;

namespace {

ServerSettings settingsFor(const ScriptedServer& server, const std::string& password = "pw") {
    ServerSettings s;
    s.host = "127.0.0.1";
    s.port = server.port();
    s.security = Security::Plain;
    s.user = "bob";
    s.password = password;
    s.timeoutSeconds = 5;
    return s;
}

// The greeting and the CAPABILITY exchange before the login.
ScriptedServer& greeted(ScriptedServer& server, const std::string& caps) {
    return server.send("* OK ready\r\n")
        .expect("{tag} CAPABILITY\r\n")
        .send("* CAPABILITY " + caps + "\r\n{tag} OK done\r\n");
}

// Greeting, CAPABILITY, LOGIN, CAPABILITY again.
void loggedIn(ScriptedServer& server, const std::string& caps) {
    greeted(server, caps)
        .expect("{tag} LOGIN \"bob\" \"pw\"\r\n")
        .send("{tag} OK logged in\r\n")
        .expect("{tag} CAPABILITY\r\n")
        .send("* CAPABILITY " + caps + "\r\n{tag} OK done\r\n");
}

TEST(ClientLogin, LoginDisabledServerNeverReceivesLogin) {
    for (AuthMechanism mech : {AuthMechanism::Auto, AuthMechanism::Login}) {
        ScriptedServer server;
        greeted(server, "IMAP4rev1 LOGINDISABLED").expectClose();
        server.start();
        ImapClient client;
        ServerSettings s = settingsFor(server);
        s.mechanism = mech;
        Status st = client.connect(s);
        EXPECT_FALSE(st);
        EXPECT_NE(st.message().find("LOGINDISABLED"), std::string::npos) << st.message();
        EXPECT_FALSE(client.isConnected());
        EXPECT_TRUE(server.finish());
        EXPECT_EQ(server.received().find("LOGIN \""), std::string::npos) << server.received();
    }
}

TEST(ClientLogin, AutoPrefersCramMd5AndReportsTheServersRefusal) {
    ScriptedServer server;
    greeted(server, "IMAP4rev1 AUTH=PLAIN AUTH=CRAM-MD5")
        .expect("{tag} AUTHENTICATE CRAM-MD5\r\n")
        .send("{tag} NO [AUTHENTICATIONFAILED] no cram today\r\n")
        .expectClose();
    server.start();
    ImapClient client;
    Status st = client.connect(settingsFor(server));
    EXPECT_EQ(st.message(), "[AUTHENTICATIONFAILED] no cram today");
    EXPECT_NE(client.lastCommand().find("AUTHENTICATE CRAM-MD5"), std::string::npos);
    EXPECT_TRUE(server.finish());
}

TEST(ClientLogin, PasswordWithQuoteGoesOverPlainIntactAndMasked) {
    const std::string password = "p\"w\\x";
    // Only LOGIN on offer: refused before anything is sent.
    {
        ScriptedServer server;
        greeted(server, "IMAP4rev1").expectClose();
        server.start();
        ImapClient client;
        Status st = client.connect(settingsFor(server, password));
        EXPECT_NE(st.message().find("LOGIN"), std::string::npos) << st.message();
        EXPECT_TRUE(server.finish());
    }
    // PLAIN on offer: chosen, and the credentials arrive byte for byte.
    StringBuffer b64;
    const std::string credentials = std::string("\0bob\0", 5) + password;
    ContentCoding::encodeBase64_noCrLf(credentials.data(), static_cast<unsigned>(credentials.size()), b64);
    ScriptedServer server;
    greeted(server, "IMAP4rev1 AUTH=PLAIN")
        .expect("{tag} AUTHENTICATE PLAIN\r\n")
        .send("+ \r\n")
        .expect(std::string(b64.getString()) + "\r\n")
        .send("{tag} OK logged in\r\n")
        .expect("{tag} CAPABILITY\r\n")
        .send("* CAPABILITY IMAP4rev1 AUTH=PLAIN IDLE\r\n{tag} OK done\r\n");
    server.start();
    ImapClient client;
    std::vector<std::string> events;
    client.setProgressCallbacks({[&](const std::string& n, const std::string& v) { events.push_back(n + "=" + v); },
                                 nullptr});
    client.keepSessionLog(true);
    ASSERT_TRUE(client.connect(settingsFor(server, password)));
    EXPECT_TRUE(client.hasCapability("idle"));
    EXPECT_TRUE(server.finish());
    bool sawAuthenticate = false;
    for (const std::string& e : events) {
        EXPECT_EQ(e.find(b64.getString()), std::string::npos) << e;
        sawAuthenticate = sawAuthenticate || e.find("AUTHENTICATE PLAIN") != std::string::npos;
    }
    EXPECT_TRUE(sawAuthenticate);
    EXPECT_EQ(client.sessionLog().find(b64.getString()), std::string::npos);
    EXPECT_NE(client.sessionLog().find("AUTHENTICATE PLAIN"), std::string::npos);
}

TEST(ClientConnect, RefusedStartTlsFailsTheConnect) {
    ScriptedServer server;
    server.send("* OK ready\r\n").expect("{tag} STARTTLS\r\n").send("{tag} NO not today\r\n").close();
    server.start();
    ImapClient client;
    ServerSettings s = settingsFor(server);
    s.security = Security::StartTls;
    Status st = client.connect(s);
    EXPECT_EQ(st.message(), "The server refused STARTTLS: not today");
    EXPECT_FALSE(client.isConnected());
    EXPECT_TRUE(server.finish());
}

TEST(ClientConnect, ByeGreetingIsReported) {
    ScriptedServer server;
    server.send("* BYE too busy\r\n").expectClose();
    server.start();
    ImapClient client;
    Status st = client.connect(settingsFor(server));
    EXPECT_EQ(st.message(), "The server refused the session: too busy");
    EXPECT_TRUE(server.finish());
}

TEST(ClientMessages, MoveFallbackExpungesExactlyTheMovedUids) {
    ScriptedServer server;
    loggedIn(server, "IMAP4rev1 UIDPLUS");
    server.expect("{tag} SELECT \"Src\"\r\n")
        .send("* 5 EXISTS\r\n* OK [UIDVALIDITY 7] ok\r\n* OK [UIDNEXT 9] ok\r\n* FLAGS (\\Seen \\Deleted $X)\r\n"
              "{tag} OK [READ-WRITE] done\r\n")
        .expect("{tag} UID COPY 1:3,5 \"Dest &-\"\r\n")
        .send("{tag} OK [COPYUID 7 1:3,5 10:13] done\r\n")
        .expect("{tag} UID STORE 1:3,5 +FLAGS.SILENT (\\Deleted)\r\n")
        .send("{tag} OK done\r\n")
        .expect("{tag} UID EXPUNGE 1:3,5\r\n")
        .send("* 5 EXPUNGE\r\n* 3 EXPUNGE\r\n* 2 EXPUNGE\r\n* 1 EXPUNGE\r\n{tag} OK done\r\n")
        .expect("{tag} LOGOUT\r\n")
        .send("* BYE bye\r\n{tag} OK done\r\n");
    server.start();
    ImapClient client;
    ASSERT_TRUE(client.connect(settingsFor(server)));
    auto box = client.select("Src");
    ASSERT_TRUE(box) << box.message();
    EXPECT_EQ(box->exists, 5u);
    EXPECT_EQ(box->uidValidity, 7u);
    EXPECT_EQ(box->uidNext, 9u);
    EXPECT_FALSE(box->readOnly);
    EXPECT_EQ(box->flags, (Flags{"\\Seen", "\\Deleted", "$X"}));
    ASSERT_TRUE(client.move({5, 1, 2, 3, 2}, "Dest &"));
    // Without UIDPLUS either: refused, nothing sent (the script goes on to LOGOUT).
    ImapClientTesting::setCapabilities(client, {"IMAP4rev1"});
    Status refused = client.move({4}, "Dest");
    EXPECT_NE(refused.message().find("neither MOVE nor UIDPLUS"), std::string::npos) << refused.message();
    EXPECT_TRUE(client.logout());
    EXPECT_TRUE(server.finish());
}

TEST(ClientMessages, RefusedLocallyWithoutSendingAnything) {
    ScriptedServer server;
    loggedIn(server, "IMAP4rev1");
    server.expect("{tag} LOGOUT\r\n").send("* BYE bye\r\n{tag} OK done\r\n");
    server.start();
    ImapClient client;
    ASSERT_TRUE(client.connect(settingsFor(server)));
    EXPECT_NE(client.createMailbox("a\"b").message().find("not supported"), std::string::npos);
    EXPECT_NE(client.select("back\\slash").message().find("not supported"), std::string::npos);
    EXPECT_NE(client.createMailbox("bad\xFFutf8").message().find("UTF-8"), std::string::npos);
    EXPECT_NE(client.append("INBOX", {'a', 0, 'b'}).message().find("NUL"), std::string::npos);
    EXPECT_NE(client.append("INBOX", {'a'}, {"$Keyword"}).message().find("UIDPLUS"), std::string::npos);
    EXPECT_NE(client.append("INBOX", {'a'}, {"bad flag"}).message().find("Invalid flag"), std::string::npos);
    EXPECT_NE(client.fetchMessage(1).message().find("No mailbox is selected"), std::string::npos);
    EXPECT_NE(client.idleStart().message().find("IDLE"), std::string::npos);
    EXPECT_NE(client.idleWait(10).message().find("not running"), std::string::npos);
    EXPECT_TRUE(client.logout());
    EXPECT_TRUE(server.finish());
}

TEST(ClientFailures, IncompleteResponseClosesTheConnection) {
    ScriptedServer server;
    loggedIn(server, "IMAP4rev1");
    server.expect("{tag} SELECT \"INBOX\"\r\n")
        .send("* 1 EXISTS\r\n{tag} OK done\r\n")
        .expect("{tag} UID SEARCH ALL\r\n")
        .send("* SEARCH 1")  // and never the rest
        .stall(3000ms);
    server.start();
    ImapClient client;
    ServerSettings s = settingsFor(server);
    s.timeoutSeconds = 1;
    ASSERT_TRUE(client.connect(s));
    ASSERT_TRUE(client.select("INBOX"));
    auto r = client.search("");
    EXPECT_FALSE(r);
    EXPECT_FALSE(r.message().empty());
    EXPECT_FALSE(client.isConnected());
    EXPECT_EQ(client.status("INBOX").message(), "Not connected to a server");
    EXPECT_TRUE(server.finish());
}

TEST(ClientFailures, AbortClosesTheConnectionAndSaysSo) {
    ScriptedServer server;
    loggedIn(server, "IMAP4rev1");
    server.expect("{tag} STATUS \"X\" (MESSAGES RECENT UIDNEXT UIDVALIDITY UNSEEN)\r\n").expectClose();
    server.start();
    ImapClient client;
    bool stop = false;
    std::vector<std::string> sent;
    client.setProgressCallbacks({[&](const std::string& n, const std::string& v) {
                                     if (n == "ImapCmdSent") sent.push_back(v);
                                 },
                                 [&] { return stop; }});
    ASSERT_TRUE(client.connect(settingsFor(server)));
    stop = true;
    auto r = client.status("X");
    EXPECT_EQ(r.message(), "Aborted by the application; the connection was closed");
    EXPECT_FALSE(client.isConnected());
    ASSERT_FALSE(sent.empty());
    EXPECT_NE(sent.back().find("STATUS \"X\""), std::string::npos);
    EXPECT_TRUE(server.finish());
}

}  // namespace
