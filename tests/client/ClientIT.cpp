// The public API end to end against the test Dovecot: bob's account, in
// mailboxes named "zr-api ..." that only these tests use. Here the API's own
// mapping of settings, results and errors is checked; for mailbox management,
// STATUS/SELECT, COPY/MOVE and TLS these are also the engine's real-server
// path (the exact commands: tests/imap). Masked credentials,
// progress events and aborts: ClientScriptedTest and tests/imap/AuthTest.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "ItMessages.h"
#include "ItSession.h"
#include "zrimap/client.h"

using namespace zr;
using zr::it::env;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::MatchesRegex;
using ::testing::Not;

namespace {

std::vector<uint8_t> bytes(const std::string& s) { return {s.begin(), s.end()}; }
std::string text(const std::vector<uint8_t>& b) { return {b.begin(), b.end()}; }

// APPEND sends the message trimmed, with one CRLF at the end.
std::string asStored(std::string mime) {
    while (!mime.empty() && (mime.back() == '\r' || mime.back() == '\n')) mime.pop_back();
    return mime + "\r\n";
}

class ClientIT : public ::testing::Test {
protected:
    ImapClient client;

    void SetUp() override {
        it::failWithoutFixture();
        if (!HasFatalFailure()) connect(client);
    }

    static ServerSettings settings(const std::string& scheme = "imaps", const std::string& user = "bob",
                                   const std::string& password = "bob-pw") {
        const std::string port = env(scheme == "imaps" ? "ZRIMAP_IMAPS_PORT" : "ZRIMAP_IMAP_PORT");
        auto r = ServerSettings::fromUrl(scheme + "://" + user + "@127.0.0.1:" + port + "/INBOX");
        EXPECT_TRUE(r) << r.message();
        ServerSettings s = r ? r.value() : ServerSettings();
        s.caFile = env("ZRIMAP_CA_FILE");
        s.password = password;
        s.timeoutSeconds = 20;
        return s;
    }

    void connect(ImapClient& c, ServerSettings s = settings()) {
        Status st = c.connect(s);
        ASSERT_TRUE(st) << st.message();
    }

    // An empty mailbox of this test's own, selected, holding `messages`.
    std::vector<uint32_t> freshMailbox(const std::string& name, const std::vector<std::string>& messages) {
        client.deleteMailbox(name);  // a leftover of an earlier run, if any
        Status st = client.createMailbox(name);
        EXPECT_TRUE(st) << st.message();
        std::vector<uint32_t> uids;
        for (const std::string& m : messages) {
            auto uid = client.append(name, bytes(m));
            EXPECT_TRUE(uid) << uid.message();
            uids.push_back(uid ? uid.value() : 0);
        }
        auto box = client.select(name);
        EXPECT_TRUE(box) << box.message();
        return uids;
    }

    std::vector<std::string> names(const std::string& pattern, bool subscribed = false) {
        auto list = client.listMailboxes(pattern, subscribed);
        EXPECT_TRUE(list) << list.message();
        std::vector<std::string> out;
        if (list)
            for (const MailboxEntry& e : list.value()) out.push_back(e.name);
        return out;
    }

    int messagesIn(const std::string& box) {
        auto st = client.status(box);
        EXPECT_TRUE(st) << st.message();
        return st ? static_cast<int>(st->messages) : -1;
    }

    std::vector<uint32_t> allUids() {
        auto r = client.search("ALL");
        EXPECT_TRUE(r) << r.message();
        return r ? r.value() : std::vector<uint32_t>{0};
    }
};

// ---------------------------------------------------------------------------
// Connecting

TEST_F(ClientIT, TlsOrStartTlsByUrl) {
    EXPECT_TRUE(client.isConnected());
    EXPECT_TRUE(client.hasCapability("imap4rev1"));
    EXPECT_TRUE(client.hasCapability("MOVE"));  // only announced after login
    EXPECT_THAT(client.capabilities(), Each(MatchesRegex("[^a-z]+")));
    client.disconnect();
    EXPECT_FALSE(client.isConnected());
    EXPECT_EQ(client.select("INBOX").message(), "Not connected to a server");

    // The same object connects again; imap:// upgrades before the login.
    client.keepSessionLog(true);
    ServerSettings s = settings("imap");
    ASSERT_EQ(s.security, Security::StartTls);
    connect(client, s);
    const std::string log = client.sessionLog();
    const size_t startTls = log.find("STARTTLS"), login = log.find("AUTHENTICATE");
    ASSERT_NE(startTls, std::string::npos) << log;
    ASSERT_NE(login, std::string::npos) << log;
    EXPECT_LT(startTls, login);
    client.clearSessionLog();
    EXPECT_EQ(client.sessionLog(), "");
    ASSERT_TRUE(client.logout());
    EXPECT_FALSE(client.isConnected());
    EXPECT_EQ(client.logout().message(), "Not connected to a server");
}

TEST_F(ClientIT, ConnectFailuresNameTheirCause) {
    // Without a CA file the system store decides, and it does not know the test CA.
    ServerSettings s = settings();
    s.caFile.clear();
    Status st = client.connect(s);
    ASSERT_FALSE(st);
    EXPECT_NE(st.message().find("certificate"), std::string::npos) << st.message();
    EXPECT_FALSE(client.isConnected());
    s.verifyCertificate = false;  // an explicit choice turns the check off
    connect(client, s);

    s = settings();
    s.caFile = "/nonexistent/ca.pem";
    st = client.connect(s);
    EXPECT_NE(st.message().find("/nonexistent/ca.pem"), std::string::npos) << st.message();

    s = settings();
    s.port = it::closedPort();
    st = client.connect(s);
    EXPECT_NE(st.message().find("refused"), std::string::npos) << st.message();
}

// Each mechanism's refusal is the server's text, without the status word.
TEST_F(ClientIT, MechanismsRefuseWithTheServersTextOrLogIn) {
    std::vector<std::string> diagnostics;
    client.setDiagnostics([&](const std::string& line) { diagnostics.push_back(line); }, false);
    for (AuthMechanism mech : {AuthMechanism::Auto, AuthMechanism::Login, AuthMechanism::Plain,
                               AuthMechanism::CramMd5}) {
        SCOPED_TRACE(static_cast<int>(mech));
        ServerSettings s = settings("imaps", "dave", "not-daves-pw");
        s.mechanism = mech;
        Status st = client.connect(s);
        EXPECT_FALSE(st);
        EXPECT_NE(st.message().find("[AUTHENTICATIONFAILED]"), std::string::npos) << st.message();
        EXPECT_EQ(st.message().find("NO "), std::string::npos) << st.message();
        EXPECT_FALSE(client.isConnected());
        s.password = "d\xC3\xA4v\xC3\xA9-pw";
        st = client.connect(s);
        EXPECT_TRUE(st) << st.message();
        EXPECT_TRUE(client.isConnected());
    }
    EXPECT_FALSE(diagnostics.empty());
    for (const std::string& line : diagnostics) EXPECT_EQ(line.find('\n'), std::string::npos);

    ServerSettings token = settings("imaps", "bob", "bob-oauth2-token");
    token.mechanism = AuthMechanism::XOAuth2;
    Status st = client.connect(token);
    EXPECT_TRUE(st) << st.message();
    // Auto recognises a bearer token and uses XOAUTH2 for it.
    client.keepSessionLog(true);
    token.mechanism = AuthMechanism::Auto;
    token.password = "Bearer bob-oauth2-token";
    st = client.connect(token);
    EXPECT_TRUE(st) << st.message();
    EXPECT_NE(client.sessionLog().find("AUTHENTICATE XOAUTH2"), std::string::npos);
}

// ---------------------------------------------------------------------------
// Mailboxes

TEST_F(ClientIT, MailboxLifecycleWithUtf8Names) {
    const std::string name = "zr-api Pr\xC3\xBC" "fung & \xE6\x97\xA5\xE6\x9C\xAC";
    const std::string renamed = "zr-api Renamed \xF0\x9F\x93\xAC";
    client.deleteMailbox(name);
    client.deleteMailbox(renamed);
    ASSERT_TRUE(client.createMailbox(name));
    EXPECT_FALSE(client.createMailbox(name));  // exists: the server's NO

    auto list = client.listMailboxes("zr-api*");
    ASSERT_TRUE(list) << list.message();
    bool seen = false;
    for (const MailboxEntry& e : list.value()) {
        if (e.name != name) continue;
        seen = true;
        EXPECT_EQ(e.rawName, encodeMailboxName(name));
        EXPECT_NE(e.rawName, name);
        EXPECT_EQ(e.delimiter, "/");
        EXPECT_TRUE(e.selectable());
    }
    EXPECT_TRUE(seen);

    ASSERT_TRUE(client.subscribe(name));
    EXPECT_THAT(names("zr-api*", true), Contains(name));
    ASSERT_TRUE(client.unsubscribe(name));
    EXPECT_THAT(names("zr-api*", true), Not(Contains(name)));

    ASSERT_TRUE(client.renameMailbox(name, renamed));
    EXPECT_THAT(names("*"), AllOf(Contains(renamed), Not(Contains(name))));
    ASSERT_TRUE(client.deleteMailbox(renamed));
    EXPECT_THAT(names("*"), Not(Contains(renamed)));
    Status gone = client.deleteMailbox(renamed);
    EXPECT_FALSE(gone);
    EXPECT_FALSE(gone.message().empty());
    EXPECT_TRUE(client.isConnected());
}

TEST_F(ClientIT, StatusSelectAndExamine) {
    const std::string box = "zr-api status";
    auto uids = freshMailbox(box, {it::plainMessage("one"), it::plainMessage("two"), it::plainMessage("three")});
    ASSERT_EQ(uids.size(), 3u);
    ASSERT_TRUE(client.addFlags({uids[0]}, {"\\Seen"}));

    auto st = client.status(box);
    ASSERT_TRUE(st) << st.message();
    EXPECT_EQ(st->messages, 3u);
    EXPECT_EQ(st->unseen, 2u);
    EXPECT_EQ(st->uidNext, uids[2] + 1);
    EXPECT_NE(st->uidValidity, 0u);

    auto sel = client.select(box);
    ASSERT_TRUE(sel) << sel.message();
    EXPECT_EQ(sel->name, box);
    EXPECT_EQ(sel->exists, 3u);
    EXPECT_EQ(sel->uidNext, uids[2] + 1);
    EXPECT_EQ(sel->uidValidity, st->uidValidity);
    EXPECT_FALSE(sel->readOnly);
    EXPECT_EQ(sel->flags.count("\\Seen"), 1u);

    auto ex = client.examine(box);
    ASSERT_TRUE(ex) << ex.message();
    EXPECT_TRUE(ex->readOnly);
    EXPECT_EQ(ex->exists, 3u);

    auto missing = client.select("zr-api does not exist");
    EXPECT_FALSE(missing);
    EXPECT_FALSE(missing.message().empty());
    EXPECT_NE(client.search("ALL").message().find("No mailbox is selected"), std::string::npos);
}

// ---------------------------------------------------------------------------
// Messages

TEST_F(ClientIT, SearchAndFlags) {
    const std::string utf8Subject = "Gr\xC3\xBC\xC3\x9F" "e";
    auto uids = freshMailbox("zr-api search", {it::plainMessage("alpha"), it::plainMessage("beta"),
                                               "Subject: =?UTF-8?Q?Gr=C3=BC=C3=9Fe?=\r\n\r\nbody\r\n"});
    ASSERT_EQ(uids.size(), 3u);
    auto all = client.search("ALL");
    ASSERT_TRUE(all) << all.message();
    EXPECT_EQ(all.value(), uids);
    auto utf8 = client.search("SUBJECT \"" + utf8Subject + "\"");
    ASSERT_TRUE(utf8) << utf8.message();
    EXPECT_EQ(utf8.value(), std::vector<uint32_t>{uids[2]});
    auto none = client.search("SUBJECT cherry");
    ASSERT_TRUE(none) << none.message();
    EXPECT_TRUE(none->empty());
    EXPECT_FALSE(client.search("NOSUCHKEY 1"));
    EXPECT_TRUE(client.isConnected());

    ASSERT_TRUE(client.addFlags({uids[0], uids[1]}, {"\\Flagged", "$Label1"}));
    auto f0 = client.fetchFlags(uids[0]);
    ASSERT_TRUE(f0) << f0.message();
    EXPECT_EQ(f0->count("\\Flagged"), 1u);
    EXPECT_EQ(f0->count("$Label1"), 1u);
    ASSERT_TRUE(client.removeFlags({uids[0]}, {"$Label1"}));
    f0 = client.fetchFlags(uids[0]);
    ASSERT_TRUE(f0);
    EXPECT_EQ(f0->count("$Label1"), 0u);
    EXPECT_EQ(f0->count("\\Flagged"), 1u);
    auto flagged = client.search("FLAGGED");
    ASSERT_TRUE(flagged);
    EXPECT_EQ(flagged.value(), (std::vector<uint32_t>{uids[0], uids[1]}));
    EXPECT_NE(client.fetchFlags(uids[2] + 100).message().find("No message with UID"), std::string::npos);
}

TEST_F(ClientIT, FetchWholeWithoutAttachmentsStructureAndParts) {
    // The line end before a boundary belongs to the boundary, not the part.
    const std::string qpOriginal = "caf\xC3\xA9 cr\xC3\xA8me = ok " + std::string(80, 'x') + "\r\nline two";
    const std::string qpMessage =
        "Subject: qp\r\nMIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=\"Q\"\r\n\r\n"
        "--Q\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: quoted-printable\r\n\r\n"
        "caf=C3=A9 cr=C3=A8me =3D ok " + std::string(60, 'x') + "=\r\n" + std::string(20, 'x') +
        "\r\nline two\r\n--Q--\r\n";
    auto uids = freshMailbox("zr-api fetch", {it::mixedMessage(), it::plainMessage("plain"), qpMessage});
    ASSERT_EQ(uids.size(), 3u);

    auto whole = client.fetchMessage(uids[0]);
    ASSERT_TRUE(whole) << whole.message();
    EXPECT_EQ(text(whole->mime), asStored(it::mixedMessage()));
    EXPECT_EQ(whole->uid, uids[0]);
    EXPECT_FALSE(whole->attachmentsLeftOut);
    EXPECT_FALSE(whole->internalDate.empty());
    EXPECT_EQ(whole->flags.count("\\Seen"), 1u);  // read in a selected mailbox

    auto light = client.fetchMessage(uids[0], true);
    ASSERT_TRUE(light) << light.message();
    EXPECT_TRUE(light->attachmentsLeftOut);
    const std::string lightText = text(light->mime);
    EXPECT_NE(lightText.find("See attached."), std::string::npos);
    EXPECT_EQ(lightText.find("doc.pdf"), std::string::npos);
    EXPECT_LT(light->mime.size(), whole->mime.size() / 2);

    auto plain = client.fetchMessage(uids[1], true);
    ASSERT_TRUE(plain) << plain.message();
    EXPECT_FALSE(plain->attachmentsLeftOut);
    EXPECT_EQ(text(plain->mime), asStored(it::plainMessage("plain")));

    auto parts = client.fetchStructure(uids[0]);
    ASSERT_TRUE(parts) << parts.message();
    std::vector<std::string> got;  // id|type/subtype|charset|filename|encoding|attachment
    for (const MessagePart& p : parts.value())
        got.push_back(p.partId + "|" + p.type + "/" + p.subtype + "|" + p.charset + "|" + p.filename + "|" +
                      p.encoding + (p.isAttachment ? "|A" : "|-"));
    EXPECT_EQ(got, (std::vector<std::string>{"|multipart/mixed||||-", "1|text/plain|utf-8||7bit|-",
                                             "2|application/pdf||doc.pdf|base64|A", "3|image/png||pic.png|base64|A"}));

    auto pdf = client.fetchPart(uids[0], "2");
    ASSERT_TRUE(pdf) << pdf.message();
    EXPECT_EQ(text(pdf.value()), it::pdfBytes());
    auto encoded = client.fetchPart(uids[0], "2", false);
    ASSERT_TRUE(encoded);
    const std::string lines = it::base64Lines(it::pdfBytes());
    EXPECT_EQ(text(encoded.value()), lines.substr(0, lines.size() - 2));

    auto qp = client.fetchPart(uids[2], "1");
    ASSERT_TRUE(qp) << qp.message();
    EXPECT_EQ(text(qp.value()), qpOriginal);

    EXPECT_NE(client.fetchPart(uids[0], "9").message().find("has no part 9"), std::string::npos);
    EXPECT_NE(client.fetchPart(uids[0], "1]").message().find("Invalid part"), std::string::npos);
    EXPECT_NE(client.fetchMessage(uids[2] + 50).message().find("No message with UID"), std::string::npos);
    EXPECT_NE(client.fetchStructure(uids[2] + 50).message().find("No message with UID"), std::string::npos);
    EXPECT_TRUE(client.isConnected());
}

// The fallback without MOVE (COPY, \Deleted, UID EXPUNGE of exactly the moved
// UIDs) is pinned on the wire by ClientScriptedTest's MoveFallback test.
TEST_F(ClientIT, CopyAndMove) {
    const std::string dest = "zr-api moved here";
    client.deleteMailbox(dest);
    ASSERT_TRUE(client.createMailbox(dest));
    auto uids = freshMailbox("zr-api move from", {it::plainMessage("m1"), it::plainMessage("m2")});
    ASSERT_EQ(uids.size(), 2u);

    ASSERT_TRUE(client.copy({uids[0]}, dest));
    EXPECT_EQ(messagesIn(dest), 1);
    EXPECT_EQ(allUids(), uids);
    ASSERT_TRUE(client.move({uids[1]}, dest));
    EXPECT_EQ(messagesIn(dest), 2);
    EXPECT_EQ(allUids(), std::vector<uint32_t>{uids[0]});

    Status bad = client.copy({uids[0]}, "zr-api no such mailbox");
    EXPECT_FALSE(bad);
    EXPECT_NE(bad.message().find("TRYCREATE"), std::string::npos) << bad.message();
}

TEST_F(ClientIT, AppendBytesAndFiles) {
    const std::string box = "zr-api append";
    freshMailbox(box, {});
    const std::string mime = it::plainMessage("appended") + "\r\n\r\n";
    auto uid = client.append(box, bytes(mime), {"\\Seen", "\\Flagged"}, "17-Jul-1996 02:44:25 -0700");
    ASSERT_TRUE(uid) << uid.message();
    ASSERT_NE(uid.value(), 0u);
    auto msg = client.fetchMessage(uid.value());
    ASSERT_TRUE(msg) << msg.message();
    EXPECT_EQ(text(msg->mime), asStored(mime));
    // The same instant, in the zone the server keeps it in.
    EXPECT_TRUE(msg->internalDate == "17-Jul-1996 02:44:25 -0700" || msg->internalDate == "17-Jul-1996 09:44:25 +0000")
        << msg->internalDate;
    EXPECT_EQ(msg->flags.count("\\Flagged"), 1u);

    // A keyword into the selected mailbox: stored right after the APPEND.
    auto kw = client.append(box, bytes(it::plainMessage("keyword")), {"$Label2", "\\Draft"});
    ASSERT_TRUE(kw) << kw.message();
    auto kwFlags = client.fetchFlags(kw.value());
    ASSERT_TRUE(kwFlags);
    EXPECT_EQ(kwFlags->count("$Label2"), 1u);
    EXPECT_EQ(kwFlags->count("\\Draft"), 1u);
    EXPECT_EQ(kwFlags->count("\\Seen"), 0u);
    EXPECT_NE(client.append("INBOX", bytes("x"), {"$Label2"}).message().find("selected mailbox"), std::string::npos);

    const std::string path = ::testing::TempDir() + "zr-api-append.eml", fileMime = it::mixedMessage();
    std::ofstream(path, std::ios::binary) << fileMime;
    auto fromFile = client.appendFile(box, path);
    std::remove(path.c_str());
    ASSERT_TRUE(fromFile) << fromFile.message();
    auto stored = client.fetchMessage(fromFile.value());
    ASSERT_TRUE(stored) << stored.message();
    EXPECT_EQ(text(stored->mime), asStored(fileMime));
    EXPECT_EQ(allUids().size(), 3u);

    Status unreadable = client.appendFile(box, "/nonexistent/message.eml").status();
    EXPECT_NE(unreadable.message().find("/nonexistent/message.eml"), std::string::npos) << unreadable.message();
    Status refused = client.append("zr-api no such mailbox", bytes(it::plainMessage("x"))).status();
    EXPECT_NE(refused.message().find("TRYCREATE"), std::string::npos) << refused.message();
    EXPECT_TRUE(client.isConnected());
}

TEST_F(ClientIT, IdleSeesAMessageAppendedByAnotherClient) {
    const std::string box = "zr-api idle";
    auto uids = freshMailbox(box, {it::plainMessage("before")});
    ASSERT_EQ(uids.size(), 1u);
    ASSERT_TRUE(client.idleStart());
    EXPECT_NE(client.status(box).message().find("idleDone"), std::string::npos);

    ImapClient other;
    connect(other);
    ASSERT_TRUE(other.append(box, bytes(it::plainMessage("during"))));

    bool sawExists = false;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!sawExists && std::chrono::steady_clock::now() < deadline) {
        auto events = client.idleWait(2000);
        ASSERT_TRUE(events) << events.message();
        for (const IdleEvent& e : events.value())
            if (e.kind == IdleEvent::Kind::Exists && e.number == 2) sawExists = true;
    }
    EXPECT_TRUE(sawExists);
    ASSERT_TRUE(client.idleDone());
    EXPECT_EQ(allUids().size(), 2u);
}

}  // namespace
