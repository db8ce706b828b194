// Message download against a real Dovecot: whole messages by UID and by
// sequence number, \Seen only from a writable mailbox, a 100 MB message byte
// for byte, the download without attachments, and every attachment by part.
#include <gtest/gtest.h>

#include <string>

#include "ItMessages.h"
#include "ItSession.h"

using namespace zr;
using zr::it::Session;

namespace {

std::string str(const DataBuffer& db) {
    return std::string(reinterpret_cast<const char*>(db.getData2()), db.getSize());
}

class DovecotFetch : public ::testing::Test {
protected:
    Session s;
    ImapFlags flags;
    StringBuffer internalDate, responseText;
    DataBuffer mime;
    bool ok = false;

    void SetUp() override {
        it::failWithoutFixture();
        if (HasFatalFailure()) return;
        ASSERT_TRUE(s.open()) << s.log.toText();
    }
    bool fetch(unsigned id, bool uid) {
        return s.imap.fetchComplete_u(id, uid, nullptr, flags, internalDate, responseText, mime, ok, s.sp, s.log);
    }
    bool seen() { return flags.isFlagSet("\\Seen"); }
};

}  // namespace

TEST_F(DovecotFetch, WholeMessagesAndTheSeenFlag) {
    ASSERT_TRUE(s.freshMailbox("zr fetch"));
    const std::string first = it::plainMessage("first"), second = it::plainMessage("second");
    ASSERT_TRUE(s.append("zr fetch", first));
    ASSERT_TRUE(s.append("zr fetch", second));

    ASSERT_TRUE(s.select("zr fetch", true));  // EXAMINE: downloads do not mark \Seen
    ASSERT_TRUE(fetch(1, true)) << s.log.toText();
    EXPECT_TRUE(ok);
    EXPECT_EQ(str(mime), first);
    EXPECT_FALSE(seen());
    EXPECT_FALSE(internalDate.isEmpty());

    ASSERT_TRUE(s.select("zr fetch", false));
    s.imap.put_ReadOnly(true);  // a read-only engine peeks as well
    ASSERT_TRUE(fetch(2, false));
    EXPECT_EQ(str(mime), second);
    EXPECT_FALSE(seen());
    s.imap.put_ReadOnly(false);
    ASSERT_TRUE(fetch(2, false));  // by sequence number, writable: now \Seen
    EXPECT_TRUE(seen());
    ASSERT_TRUE(fetch(1, true));
    EXPECT_TRUE(seen());

    EXPECT_FALSE(fetch(99, true));
    EXPECT_FALSE(ok);
}

TEST_F(DovecotFetch, HundredMegabytesByteForByte) {
    ASSERT_TRUE(s.freshMailbox("zr large"));
    std::string message = "Subject: large\r\nContent-Type: application/octet-stream\r\n\r\n";
    const std::string line(998, 'x');
    while (message.size() < (100u << 20)) message += line + "\r\n";
    ASSERT_TRUE(s.append("zr large", message)) << s.log.toText();
    ASSERT_TRUE(s.select("zr large", true));
    ASSERT_TRUE(fetch(1, true)) << s.log.toText();
    ASSERT_EQ(mime.getSize(), message.size());
    EXPECT_TRUE(str(mime) == message);
    // One reservation: the literal plus the reader's headroom, nothing doubled.
    EXPECT_LE(mime.getCapacity(), message.size() + 2048 + 1);
    ImapResultSet del;
    s.imap.deleteMailbox2("zr large", del, s.log, s.sp);
}

TEST_F(DovecotFetch, WithoutAttachmentsAndEveryAttachmentByPart) {
    ASSERT_TRUE(s.freshMailbox("zr parts"));
    ASSERT_TRUE(s.append("zr parts", it::mixedMessage()));
    ASSERT_TRUE(s.append("zr parts", it::forwardMessage()));
    ASSERT_TRUE(s.select("zr parts", true));
    s.imap.m_autoDownloadAttachments = false;

    ASSERT_TRUE(fetch(1, true)) << s.log.toText();
    const std::string text = str(mime);
    StringBuffer contentType, boundary;
    ASSERT_TRUE(MimeParser::getHeaderField(text.c_str(), "Content-Type", contentType));
    ASSERT_TRUE(MimeParser::getSubField(contentType.getString(), "boundary", boundary));
    EXPECT_STREQ(boundary.getString(), "M1");
    EXPECT_NE(text.find("--M1\r\nContent-Type: text/plain; charset=utf-8\r\n\r\nSee attached.\r\n--M1--\r\n"),
              std::string::npos)
        << text;
    EXPECT_EQ(text.find("doc.pdf"), std::string::npos);  // the attachments stayed on the server
    EXPECT_LT(text.size(), 400u);

    ASSERT_TRUE(fetch(2, true)) << s.log.toText();  // a forward: its own text is part 1
    EXPECT_NE(str(mime).find("Forwarded below."), std::string::npos);

    struct {
        const char* part;
        const std::string& bytes;
    } attachments[] = {{"2", it::pdfBytes()}, {"3", it::pngBytes()}};
    for (const auto& a : attachments) {
        DataBuffer data;
        ASSERT_TRUE(s.imap.fetchAttachment_u(1, true, a.part, responseText, data, ok, s.sp, s.log)) << a.part;
        DataBuffer decoded;
        ASSERT_TRUE(ContentCoding::decodeBase64ToDb(reinterpret_cast<const char*>(data.getData2()), data.getSize(),
                                                    decoded));
        EXPECT_TRUE(str(decoded) == a.bytes) << a.part;
    }
}
