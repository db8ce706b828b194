// Message download against a real Dovecot: whole messages by UID and by
// sequence number, \Seen only from a writable mailbox, a 100 MB message byte
// for byte, the download without attachments, and every attachment by part.
#include <gtest/gtest.h>

#include <string>

#include "ItMessages.h"
#include "ItSession.h"

using namespace zr;

namespace {

std::string str(const DataBuffer& db) {
    return std::string(reinterpret_cast<const char*>(db.getData2()), db.getSize());
}

class DovecotFetch : public it::LoggedIn {
protected:
    ImapFlags flags;
    StringBuffer internalDate, responseText;
    DataBuffer mime;
    bool ok = false;

    bool fetch(unsigned id, bool uid) {
        return imap.fetchComplete_u(id, uid, nullptr, flags, internalDate, responseText, mime, ok, sp, log);
    }
    bool seen() { return flags.isFlagSet("\\Seen"); }
};

}  // namespace

TEST_F(DovecotFetch, WholeMessagesAndTheSeenFlag) {
    ASSERT_TRUE(freshMailbox("zr fetch"));
    const std::string first = it::plainMessage("first"), second = it::plainMessage("second");
    ASSERT_TRUE(append("zr fetch", first));
    ASSERT_TRUE(append("zr fetch", second));

    ASSERT_TRUE(select("zr fetch", true));  // EXAMINE: downloads do not mark \Seen
    ASSERT_TRUE(fetch(1, true)) << log.toText();
    EXPECT_TRUE(ok);
    EXPECT_EQ(str(mime), first);
    EXPECT_FALSE(seen());
    EXPECT_FALSE(internalDate.isEmpty());

    ASSERT_TRUE(select("zr fetch", false));
    imap.put_ReadOnly(true);  // a read-only engine peeks as well
    ASSERT_TRUE(fetch(2, false));
    EXPECT_EQ(str(mime), second);
    EXPECT_FALSE(seen());
    imap.put_ReadOnly(false);
    ASSERT_TRUE(fetch(2, false));  // by sequence number, writable: now \Seen
    EXPECT_TRUE(seen());
    ASSERT_TRUE(fetch(1, true));
    EXPECT_TRUE(seen());

    EXPECT_FALSE(fetch(99, true));
    EXPECT_FALSE(ok);
}

TEST_F(DovecotFetch, HundredMegabytesByteForByte) {
    ASSERT_TRUE(freshMailbox("zr large"));
    std::string message = "Subject: large\r\nContent-Type: application/octet-stream\r\n\r\n";
    const std::string line(998, 'x');
    while (message.size() < (100u << 20)) message += line + "\r\n";
    ASSERT_TRUE(append("zr large", message)) << log.toText();
    ASSERT_TRUE(select("zr large", true));
    ASSERT_TRUE(fetch(1, true)) << log.toText();
    ASSERT_EQ(mime.getSize(), message.size());
    EXPECT_TRUE(str(mime) == message);
    // One reservation: the literal plus the reader's headroom, nothing doubled.
    EXPECT_LE(mime.getCapacity(), message.size() + 2048 + 1);
    ImapResultSet del;
    imap.deleteMailbox2("zr large", del, log, sp);
}

TEST_F(DovecotFetch, WithoutAttachmentsAndEveryAttachmentByPart) {
    ASSERT_TRUE(freshMailbox("zr parts"));
    ASSERT_TRUE(append("zr parts", it::mixedMessage()));
    ASSERT_TRUE(append("zr parts", it::forwardMessage()));
    ASSERT_TRUE(select("zr parts", true));
    imap.m_autoDownloadAttachments = false;

    // A forward: its own text is part 1, the forwarded message stays on the server.
    // The mixed message: ClientIT.FetchWholeWithoutAttachmentsStructureAndParts.
    ASSERT_TRUE(fetch(2, true)) << log.toText();
    EXPECT_NE(str(mime).find("Forwarded below."), std::string::npos);
    EXPECT_EQ(str(mime).find("<p>html</p>"), std::string::npos) << str(mime);

    struct {
        const char* part;
        const std::string& bytes;
    } attachments[] = {{"2", it::pdfBytes()}, {"3", it::pngBytes()}};
    for (const auto& a : attachments) {
        DataBuffer data;
        ASSERT_TRUE(imap.fetchAttachment_u(1, true, a.part, responseText, data, ok, sp, log)) << a.part;
        DataBuffer decoded;
        ASSERT_TRUE(ContentCoding::decodeBase64ToDb(reinterpret_cast<const char*>(data.getData2()), data.getSize(),
                                                    decoded));
        EXPECT_TRUE(str(decoded) == a.bytes) << a.part;
    }
}
