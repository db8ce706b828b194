#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "zrimap/engine.h"

using namespace zr;

namespace {

// A result set holding `lines` byte for byte (NULs included), then the
// tagged completion.
void fill(ImapResultSet& rs, const std::vector<std::string>& lines) {
    rs.clear();
    rs.setTag("a1");
    for (const std::string& l : lines) {
        StringBuffer* sb = StringBuffer::createNewSB("");
        sb->appendN(l.data(), static_cast<unsigned>(l.size()));
        rs.getArray2().appendPtr(sb);
    }
    rs.getArray2().appendString("a1 OK UID FETCH completed\r\n");
}

std::string fetchLine(const std::string& structure) { return "* 1 FETCH (UID 7 BODYSTRUCTURE " + structure + ")\r\n"; }

struct Parse {
    ImapResultSet rs;
    ImapMsgSummary s;
    MemoryLog log;
    bool ok = false;
    explicit Parse(const std::vector<std::string>& lines) {
        fill(rs, lines);
        ok = rs.parseSummary(s, "(UID BODYSTRUCTURE)", log);
    }
    // The part numbers in order, "*" after an attachment.
    std::string ids() const {
        std::string out;
        for (int i = 0; i < s.getNumParts(); ++i)
            out += std::string(i ? "," : "") + "[" + s.getPart(i)->m_partId.getString() + "]" +
                   (s.getPart(i)->m_isAttachment ? "*" : "");
        return out;
    }
    std::string best(const char* from) const {
        StringBuffer id(from);
        return s.findBestMsgPart(id) ? id.getString() : "none";
    }
    std::string error() const { return log.errors().empty() ? "" : log.errors().front(); }
};

struct Want {
    const char* id;
    const char* type;
    const char* sub;
    const char* encoding;
    unsigned size;
    const char* disposition;
    const char* filename;
    const char* name;
    bool attachment;
};

void expectPart(const ImapMsgSummary& s, int i, const Want& w) {
    SCOPED_TRACE(std::string("part index ") + std::to_string(i) + " (" + w.id + ")");
    const ImapMsgPart* p = s.getPart(i);
    ASSERT_NE(p, nullptr);
    EXPECT_STREQ(p->m_partId.getString(), w.id);
    EXPECT_STREQ(p->m_contentType.getString(), w.type);
    EXPECT_STREQ(p->m_subType.getString(), w.sub);
    EXPECT_STREQ(p->m_encoding.getString(), w.encoding);
    EXPECT_EQ(p->m_size, w.size);
    EXPECT_STREQ(p->m_disposition.getString(), w.disposition);
    EXPECT_STREQ(p->m_filename.getString(), w.filename);
    EXPECT_STREQ(p->m_name.getString(), w.name);
    EXPECT_EQ(p->m_isAttachment, w.attachment);
}

// Invariants of every outcome: a failure leaves nothing behind; a success
// has unique specifiers and a count that matches the flags.
void expectConsistent(const Parse& p) {
    if (!p.ok) {
        EXPECT_EQ(p.s.m_loaded, 0);
        EXPECT_EQ(p.s.getNumParts(), 0);
        EXPECT_FALSE(p.error().empty());
        return;
    }
    EXPECT_EQ(p.s.m_loaded, 1);
    ASSERT_GE(p.s.getNumParts(), 1);
    std::set<std::string> seen;
    int flagged = 0;
    for (int i = 0; i < p.s.getNumParts(); ++i) {
        EXPECT_TRUE(seen.insert(p.s.getPart(i)->m_partId.getString()).second) << p.ids();
        flagged += p.s.getPart(i)->m_isAttachment ? 1 : 0;
    }
    EXPECT_EQ(flagged, p.s.m_numAttachments);
}

const char* kEnvelope =
    "(\"Tue, 1 Jul 2025 10:00:00 +0000\" \"Re: (draft) \\\"plan\\\"\" ((\"Ann\" NIL \"ann\" \"example.com\")) "
    "((\"Ann\" NIL \"ann\" \"example.com\")) NIL ((\"Bob\" NIL \"bob\" \"example.org\")(NIL NIL \"team\" NIL)"
    "(NIL NIL NIL NIL)) NIL NIL NIL \"<a1@example.com>\")";

// Forwarded message with a multipart body, a literal file name and
// extension data: the structure the truncation and mutation runs start from.
std::string forwardedLine() {
    return fetchLine(std::string("((\"text\" \"html\" (\"charset\" \"utf-8\") NIL NIL \"quoted-printable\" 900 20 NIL NIL NIL NIL)"
                                 "(\"message\" \"rfc822\" (\"name\" {13}\r\nold \"(1)\".eml) NIL NIL \"7bit\" 5000 ") +
                     kEnvelope +
                     " ((\"text\" \"plain\" (\"charset\" \"us-ascii\") NIL NIL \"7bit\" 300 9 NIL NIL NIL NIL)"
                     "(\"text\" \"html\" (\"charset\" \"us-ascii\") NIL NIL \"7bit\" 700 15 NIL NIL NIL NIL) \"alternative\" "
                     "(\"boundary\" \"in\") NIL NIL NIL) 120 NIL (\"attachment\" (\"filename\" \"fwd.eml\")) NIL NIL)"
                     " \"mixed\" (\"boundary\" \"out\") NIL NIL NIL)");
}

}  // namespace

TEST(BodyStructure, SinglePartAndMultipartFromRfc3501) {
    Parse plain({fetchLine("(\"TEXT\" \"PLAIN\" (\"CHARSET\" \"US-ASCII\") NIL NIL \"7BIT\" 3028 92)")});
    ASSERT_TRUE(plain.ok) << plain.error();
    EXPECT_EQ(plain.s.m_loaded, 1);
    EXPECT_EQ(plain.ids(), "[1]");
    expectPart(plain.s, 0, {"1", "TEXT", "PLAIN", "7BIT", 3028, "", "", "", false});
    EXPECT_STREQ(plain.s.getPart(0)->m_charset.getString(), "US-ASCII");
    EXPECT_EQ(plain.s.m_uid, 7u);
    EXPECT_EQ(plain.best("1"), "1");

    Parse mixed({fetchLine(
        "((\"TEXT\" \"PLAIN\" (\"CHARSET\" \"US-ASCII\") NIL NIL \"7BIT\" 1152 23)(\"TEXT\" \"PLAIN\" (\"CHARSET\" "
        "\"US-ASCII\" \"NAME\" \"cc.diff\") \"<960723163407.20117h@cac.washington.edu>\" \"Compiler diff\" \"BASE64\" "
        "4554 73) \"MIXED\")")});
    ASSERT_TRUE(mixed.ok) << mixed.error();
    EXPECT_EQ(mixed.ids(), "[],[1],[2]*");
    expectPart(mixed.s, 0, {"", "multipart", "MIXED", "", 0, "", "", "", false});
    expectPart(mixed.s, 1, {"1", "TEXT", "PLAIN", "7BIT", 1152, "", "", "", false});
    expectPart(mixed.s, 2, {"2", "TEXT", "PLAIN", "BASE64", 4554, "", "", "cc.diff", true});  // named, not the body
    EXPECT_STREQ(mixed.s.getPart(2)->m_contentId.getString(), "<960723163407.20117h@cac.washington.edu>");
    EXPECT_STREQ(mixed.s.getPart(2)->m_description.getString(), "Compiler diff");
    EXPECT_EQ(mixed.best(""), "1");
}

TEST(BodyStructure, AlternativeMixedAndRelatedAsServersSendThem) {
    Parse alt({fetchLine("((\"text\" \"plain\" (\"charset\" \"utf-8\") NIL NIL \"quoted-printable\" 120 4 NIL NIL NIL NIL)"
                         "(\"text\" \"html\" (\"charset\" \"utf-8\") NIL NIL \"quoted-printable\" 800 12 NIL NIL NIL NIL) "
                         "\"alternative\" (\"boundary\" \"b1\") NIL NIL NIL)")});
    ASSERT_TRUE(alt.ok) << alt.error();
    EXPECT_EQ(alt.ids(), "[],[1],[2]");
    EXPECT_TRUE(alt.s.getPart(0)->isType("multipart", "alternative"));
    EXPECT_TRUE(alt.s.findMsgPart("2")->isType("text", "html"));
    EXPECT_EQ(alt.best(""), "1");
    EXPECT_EQ(alt.best("2"), "2");

    Parse mixed({fetchLine(
        "((\"text\" \"plain\" (\"charset\" \"utf-8\" \"format\" \"flowed\") NIL NIL \"7bit\" 42 2 NIL NIL NIL NIL)"
        "(\"application\" \"pdf\" (\"name\" \"report.pdf\") NIL NIL \"base64\" 70000 NIL (\"attachment\" (\"filename\" "
        "\"report.pdf\" \"size\" \"51200\")) NIL NIL)"
        "(\"image\" \"png\" (\"name\" \"chart.png\") \"<chart@x>\" NIL \"base64\" 2000 NIL (\"inline\" (\"filename\" "
        "\"chart.png\")) NIL NIL) \"mixed\" (\"boundary\" \"=_b\") NIL NIL NIL)")});
    ASSERT_TRUE(mixed.ok) << mixed.error();
    expectPart(mixed.s, 2, {"2", "application", "pdf", "base64", 70000, "attachment", "report.pdf", "report.pdf", true});
    expectPart(mixed.s, 3, {"3", "image", "png", "base64", 2000, "inline", "chart.png", "chart.png", true});
    EXPECT_EQ(mixed.s.m_numAttachments, 2);

    // Exchange style: upper case, an embedded image that only the HTML shows.
    Parse related({fetchLine(
        "((\"TEXT\" \"HTML\" (\"CHARSET\" \"utf-8\") NIL NIL \"QUOTED-PRINTABLE\" 500 10 NIL NIL \"en-US\" NIL)"
        "(\"IMAGE\" \"JPEG\" (\"NAME\" \"image001.jpg\") \"<image001.jpg@01D0>\" \"image001.jpg\" \"BASE64\" 3000 NIL "
        "(\"inline\" (\"FILENAME\" \"image001.jpg\" \"SIZE\" \"2190\")) NIL NIL) \"RELATED\" (\"BOUNDARY\" \"x\" \"TYPE\" "
        "\"text/html\") NIL \"en-US\")")});
    ASSERT_TRUE(related.ok) << related.error();
    expectPart(related.s, 2, {"2", "IMAGE", "JPEG", "BASE64", 3000, "inline", "image001.jpg", "image001.jpg", false});
    EXPECT_EQ(related.s.m_numAttachments, 0);
    EXPECT_EQ(related.best(""), "1");

    // Outlook: mixed(related(alternative(plain, html), image), attachment)
    Parse nested({fetchLine(
        "((((\"text\" \"plain\" (\"charset\" \"utf-8\") NIL NIL \"7bit\" 10 1)(\"text\" \"html\" (\"charset\" \"utf-8\") "
        "NIL NIL \"7bit\" 20 1) \"alternative\")(\"image\" \"gif\" (\"name\" \"logo.gif\") \"<logo>\" NIL \"base64\" 99) "
        "\"related\")(\"application\" \"vnd.ms-excel\" (\"name\" \"q3.xls\") NIL NIL \"base64\" 4096 NIL (\"attachment\" "
        "NIL)) \"mixed\")")});
    ASSERT_TRUE(nested.ok) << nested.error();
    EXPECT_EQ(nested.ids(), "[],[1],[1.1],[1.1.1],[1.1.2],[1.2],[2]*");  // the inline image is no attachment
    EXPECT_TRUE(nested.s.getPart(1)->isType("multipart", "related"));
    EXPECT_STREQ(nested.s.findMsgPart("2")->m_filename.getString(), "");  // no fallback to the name
    EXPECT_EQ(nested.best("1"), "1.1.1");
    EXPECT_EQ(nested.best("2"), "none");
}

TEST(BodyStructure, ForwardedMessagesAreOneAttachmentWithImapNumbering) {
    Parse fwd({forwardedLine()});
    ASSERT_TRUE(fwd.ok) << fwd.error();
    EXPECT_EQ(fwd.ids(), "[],[1],[2]*,[2.TEXT],[2.1],[2.2]");
    expectPart(fwd.s, 2, {"2", "message", "rfc822", "7bit", 5000, "attachment", "fwd.eml", "old \"(1)\".eml", true});
    expectPart(fwd.s, 3, {"2.TEXT", "multipart", "alternative", "", 0, "", "", "", false});
    expectPart(fwd.s, 4, {"2.1", "text", "plain", "7bit", 300, "", "", "", false});
    EXPECT_EQ(fwd.best(""), "1");  // the outer HTML, not the forwarded plain text
    EXPECT_EQ(fwd.best("2"), "2.1");

    Parse single({fetchLine(std::string("((\"TEXT\" \"PLAIN\" NIL NIL NIL \"7BIT\" 5 1)(\"MESSAGE\" \"RFC822\" NIL NIL NIL "
                                        "\"7BIT\" 900 ") +
                            kEnvelope +
                            " (\"APPLICATION\" \"PDF\" (\"NAME\" \"inner.pdf\") NIL NIL \"BASE64\" 400) 20) \"MIXED\")")});
    ASSERT_TRUE(single.ok) << single.error();
    EXPECT_EQ(single.ids(), "[],[1],[2]*,[2.1]");  // the PDF inside the forwarded message is not counted
    EXPECT_EQ(single.best("2"), "none");

    // A forward of a forward: each level keeps its own text.
    const std::string innerFwd = std::string("(\"message\" \"rfc822\" NIL NIL NIL \"7bit\" 50 ") + kEnvelope +
                                 " (\"text\" \"plain\" NIL NIL NIL \"7bit\" 5 1) 2)";
    Parse twice({fetchLine(std::string("((\"text\" \"plain\" NIL NIL NIL \"7bit\" 5 1)(\"message\" \"rfc822\" NIL NIL "
                                       "NIL \"7bit\" 90 ") +
                           kEnvelope + " ((\"text\" \"html\" NIL NIL NIL \"7bit\" 9 1)" + innerFwd +
                           " \"mixed\") 9) \"mixed\")")});
    ASSERT_TRUE(twice.ok) << twice.error();
    EXPECT_EQ(twice.ids(), "[],[1],[2]*,[2.TEXT],[2.1],[2.2],[2.2.1]");
    EXPECT_EQ(twice.best("2"), "2.1");      // its own HTML beats the plain text it forwards
    EXPECT_EQ(twice.best("2.2"), "2.2.1");

    // A server that treats message/rfc822 as a basic part sends no envelope.
    Parse basic({fetchLine("(\"message\" \"rfc822\" NIL NIL NIL \"7bit\" 900 NIL NIL NIL NIL)")});
    ASSERT_TRUE(basic.ok) << basic.error();
    EXPECT_EQ(basic.ids(), "[1]*");
}

TEST(BodyStructure, ExtensionDataNilCaseAndLenientForms) {
    const std::string leaf = "(\"text\" \"plain\" (\"charset\" \"utf-8\") NIL NIL \"8bit\" 12 1";
    Parse withBody({"* 1 FETCH (BODY (" + leaf.substr(1) + ") UID 3)\r\n"});
    Parse withExt({fetchLine(leaf + " \"md5sum\" (\"inline\" NIL) (\"en\" \"de\") \"loc\" (\"x\" (1 (2)) {3}\r\nabc) 42 "
                                    "nil)")});
    for (const Parse* p : {&withBody, &withExt}) {
        ASSERT_TRUE(p->ok) << p->error();
        expectPart(p->s, 0, {"1", "text", "plain", "8bit", 12, p == &withExt ? "inline" : "", "", "", false});
    }
    EXPECT_EQ(withBody.s.m_uid, 3u);  // items after the structure are read too

    // NIL for the parameters, encoding, size, line count; odd and empty lists
    // of parameters; a bare disposition string; a missing subtype tail.
    Parse nils({fetchLine("((nil \"octet-stream\" NIL NIL NIL NIL NIL NIL \"attachment\")(\"Text\" \"Plain\" (\"ChArSeT\" "
                          "\"UTF-8\" \"name\") NIL NIL \"7bit\" 1 NIL)(\"image\" \"png\" () NIL NIL \"base64\" 9)("
                          "\"application\" \"zip\" (\"name\") NIL NIL \"base64\" 9 NIL (\"ATTACHMENT\" (\"FileName\" "
                          "\"A.ZIP\")))(\"audio\" \"basic\") \"Mixed\")")});
    ASSERT_TRUE(nils.ok) << nils.error();
    expectPart(nils.s, 1, {"1", "", "octet-stream", "", 0, "attachment", "", "", true});
    expectPart(nils.s, 2, {"2", "Text", "Plain", "7bit", 1, "", "", "", false});
    EXPECT_STREQ(nils.s.getPart(2)->m_charset.getString(), "UTF-8");
    expectPart(nils.s, 3, {"3", "image", "png", "base64", 9, "", "", "", true});  // unnamed file in a mixed
    expectPart(nils.s, 4, {"4", "application", "zip", "base64", 9, "ATTACHMENT", "A.ZIP", "", true});
    expectPart(nils.s, 5, {"5", "audio", "basic", "", 0, "", "", "", true});
    EXPECT_EQ(nils.s.m_numAttachments, 4);

    Parse upper({"* 9 fetch (uid 11 bodystructure (\"TEXT\" \"HTML\" NIL NIL NIL \"BASE64\" 4294967296 "
                 "7 NIL (\"inline\" (\"filename\" \"body.html\"))))\r\n"});
    ASSERT_TRUE(upper.ok) << upper.error();
    EXPECT_EQ(upper.s.getPart(0)->m_size, UINT_MAX);  // saturated, not wrapped
    EXPECT_FALSE(upper.s.getPart(0)->m_isAttachment);  // the message's own text despite its file name
    EXPECT_EQ(upper.best("1"), "1");
    EXPECT_EQ(upper.s.m_uid, 11u);
}

TEST(BodyStructure, LiteralsAndEncodedFileNames) {
    // The collector joins the literal into its line; its bytes may hold
    // quotes, parentheses and line ends, and a BODY[HEADER] literal before
    // the structure may mention BODYSTRUCTURE itself.
    const std::string header = "Subject: BODYSTRUCTURE ((\"x\r\n\r\n";
    Parse lit({"* 1 FETCH (BODY[HEADER.FIELDS (SUBJECT)] {" + std::to_string(header.size()) + "}\r\n" + header +
               " UID 8 BODYSTRUCTURE (\"application\" \"pdf\" (\"name\" {6}\r\na\r\nb)c) NIL NIL \"base64\" 10 NIL "
               "(\"attachment\" (\"filename\" {12}\r\nit\"s (1).pdf)) NIL NIL))\r\n"});
    ASSERT_TRUE(lit.ok) << lit.error();
    EXPECT_EQ(lit.s.m_uid, 8u);
    expectPart(lit.s, 0, {"1", "application", "pdf", "base64", 10, "attachment", "it\"s (1).pdf", "a\r\nb)c", true});

    auto fileName = [](const std::string& dispParams, const std::string& typeParams = "NIL") {
        Parse p({fetchLine("(\"application\" \"octet-stream\" " + typeParams + " NIL NIL \"base64\" 1 NIL (\"attachment\" " +
                           dispParams + "))")});
        EXPECT_TRUE(p.ok) << p.error();
        return std::string(p.ok ? (dispParams == "NIL" ? p.s.getPart(0)->m_name.getString() : p.s.getPart(0)->m_filename.getString()) : "?");
    };
    EXPECT_EQ(fileName("(\"filename*\" \"utf-8''%E2%82%AC%20rates.pdf\")"), "\xE2\x82\xAC rates.pdf");
    EXPECT_EQ(fileName("(\"filename*0*\" \"UTF-8'en'caf%C3%A9\" \"filename*2*\" \"%2Etxt\" \"filename*1\" \"_menu\")"),
              "caf\xC3\xA9_menu.txt");  // joined in numeric order, not arrival order
    EXPECT_EQ(fileName("(\"filename\" \"fallback.txt\" \"FILENAME*\" \"UTF-8''real.txt\")"), "real.txt");
    EXPECT_EQ(fileName("(\"filename\" \"=?UTF-8?B?w6l0w6kucGRm?=\")"), "\xC3\xA9t\xC3\xA9.pdf");
    EXPECT_EQ(fileName("(\"filename\" \"=?iso-8859-1?Q?caf=E9_?= =?utf-8?q?menu.txt?=\")"), "caf\xC3\xA9 menu.txt");
    EXPECT_EQ(fileName("(\"filename\" \"100%.txt\")"), "100%.txt");  // plain values are not percent-decoded
    EXPECT_EQ(fileName("(\"filename\" \"say \\\"hi\\\" \\\\ C:\\temp\\x.txt\")"), "say \"hi\" \\ C:\\temp\\x.txt");
    EXPECT_EQ(fileName("(\"filename*1\" \"b\" \"filename*0\" \"a\" \"filename*1\" \"dup\")"), "ab");
    EXPECT_EQ(fileName("NIL", "(\"name*\" \"iso-8859-1'de'gr%FC%DFe.txt\")"), "gr\xC3\xBC\xC3\x9F" "e.txt");
    EXPECT_EQ(fileName("NIL", "(\"name*\" \"x-no-such-charset''ab%41%4\")"), "abA%4");  // raw bytes kept
}

TEST(BodyStructure, PicksTheFetchLineAndMessageItems) {
    Parse p({"* 3 EXISTS\r\n", "* 2 FETCH (FLAGS (\\Seen))\r\n", "* 5 FETCH (UID (broken\r\n",
             "* 1 FETCH (FLAGS (\\Seen $Forwarded) RFC822.SIZE 4567 UID 99 BODYSTRUCTURE (\"text\" \"plain\" NIL NIL NIL "
             "\"7bit\" 1 1))\r\n",
             "* 4 FETCH (UID 6 BODYSTRUCTURE (\"image\" \"gif\" NIL NIL NIL \"base64\" 1))\r\n"});
    ASSERT_TRUE(p.ok) << p.error();
    EXPECT_EQ(p.s.m_uid, 99u);
    EXPECT_EQ(p.s.m_rfc822Size, 4567u);
    EXPECT_STREQ(p.s.m_flags.getString(), "\\Seen $Forwarded");
    EXPECT_TRUE(p.s.getPart(0)->isType("text", "plain"));

    // Items of a line without a structure do not leak into the result.
    Parse fresh({"* 2 FETCH (FLAGS (\\Seen) RFC822.SIZE 9 UID 4)\r\n",
                 "* 3 FETCH (UID 5 BODYSTRUCTURE (\"text\" \"plain\" NIL NIL NIL \"7bit\" 1 1) RFC822.SIZE "
                 "99999999999999999999999)\r\n"});
    ASSERT_TRUE(fresh.ok) << fresh.error();
    EXPECT_EQ(fresh.s.m_uid, 5u);
    EXPECT_STREQ(fresh.s.m_flags.getString(), "");
    EXPECT_EQ(fresh.s.m_rfc822Size, UINT64_MAX);

    Parse none({"* 2 FETCH (FLAGS (\\Seen) UID 4)\r\n", "* 2 FETCH (BODY[] {2}\r\nab)\r\n"});
    EXPECT_FALSE(none.ok);
    EXPECT_EQ(none.error(), "No FETCH response with a BODYSTRUCTURE found");
    EXPECT_EQ(none.s.m_uid, 0u);  // not left over from a line without a structure
    ASSERT_NE(none.log.firstData("fetchItems"), nullptr);
    EXPECT_EQ(*none.log.firstData("fetchItems"), "(UID BODYSTRUCTURE)");

    // The first structure is the one asked for: a later message's never
    // stands in for it.
    Parse firstBroken({fetchLine("(\"text\" \"plain\" (\"name\" \"x"),
                       "* 2 FETCH (UID 8 BODYSTRUCTURE (\"text\" \"plain\" NIL NIL NIL \"7bit\" 1 1))\r\n"});
    EXPECT_FALSE(firstBroken.ok);
    EXPECT_NE(firstBroken.error().find("unterminated quoted string"), std::string::npos) << firstBroken.error();
    expectConsistent(firstBroken);

    // A loaded summary that is parsed again from a bad response ends cleared.
    ImapResultSet rs;
    fill(rs, {fetchLine("(\"text\" \"plain\" NIL NIL NIL \"7bit\" 1 1)")});
    MemoryLog log;
    ASSERT_TRUE(rs.parseSummary(p.s, nullptr, log));
    fill(rs, {fetchLine("(\"multipart\" \"mixed\")")});
    EXPECT_FALSE(rs.parseSummary(p.s, nullptr, log));
    EXPECT_EQ(p.s.m_loaded, 0);
    EXPECT_EQ(p.s.getNumParts(), 0);
    EXPECT_EQ(p.s.m_uid, 0u);
}

TEST(BodyStructure, ErrorsNameTheProblemAndOffset) {
    struct Case {
        std::string line;
        size_t offset;        // where the error must point
        std::string message;  // the text after "at offset N"
    };
    auto at = [](const std::string& line, const std::string& what) { return line.find(what); };
    // bytes after the "{n}\r\n" of the first literal
    auto leftAfterLiteral = [](const std::string& line) {
        return std::to_string(line.size() - (line.find("}\r\n") + 3));
    };
    std::vector<Case> cases;
    auto add = [&](const std::string& line, const std::string& pointAt, const std::string& message) {
        cases.push_back(Case{line, at(line, pointAt), message});
    };
    add(fetchLine("X"), "X)", ": expected '(' to open a body but found 'X'");
    add(fetchLine("(\"MULTIPART\" \"MIXED\" NIL NIL NIL \"7BIT\" 0)"), "\"MULTIPART\"",
        " in part 1: multipart body with no parts");
    add(fetchLine("(\"text\" \"plain\" (\"name\" \"abc"), "\"abc", " in part 1: unterminated quoted string");
    std::string line = fetchLine("(\"text\" \"plain\" (\"name\" {999}\r\nabc) NIL NIL \"7bit\" 1 1)");
    add(line, "{999}", " in part 1: literal of 999 bytes runs past the end of the line (" + leftAfterLiteral(line) +
                           " bytes left)");
    line = fetchLine("(\"text\" \"plain\" (\"name\" {99999999999999999999999}\r\nabc) NIL NIL \"7bit\" 1 1)");
    add(line, "{9", " in part 1: literal of 18446744073709551615 bytes runs past the end of the line (" +
                        leftAfterLiteral(line) + " bytes left)");
    add("* 1 FETCH (UID 7 BODYSTRUCTURE ((\"text\" \"plain\" NIL NIL NIL \"7bit\" 1 1) \"mixed\"\r\n", "\r\n",
        " in the top-level multipart: expected ')' to close the body but found the end of the line");
    add(fetchLine("(\"text\" (\"plain\") NIL NIL NIL \"7bit\" 1 1)"), "(\"plain",
        " in part 1: expected the media subtype (a string) but found '('");
    add(fetchLine(std::string("((\"text\" \"plain\" NIL NIL NIL \"7bit\" 1 1)(") + '\0' + "\"x\") \"mixed\")"),
        std::string(1, '\0'), " in part 2: expected the media type (a string) but found byte 0x00");

    for (const Case& c : cases) {
        SCOPED_TRACE(c.message);
        ASSERT_NE(c.offset, std::string::npos);
        Parse p({c.line});
        ASSERT_FALSE(p.ok);
        EXPECT_EQ(p.error(), "BODYSTRUCTURE parse error at offset " + std::to_string(c.offset) + c.message);
        EXPECT_NE(p.log.firstData("near"), nullptr);
        expectConsistent(p);
    }
    const std::string items = "* 1 FETCH (UID 7 BODY[TEXT] {50}\r\nshort)\r\n";
    Parse p({items});
    EXPECT_FALSE(p.ok);
    EXPECT_EQ(p.error(), "FETCH response parse error at offset " + std::to_string(items.find('{')) +
                             ": literal of 50 bytes runs past the end of the line (8 bytes left)");
}

TEST(BodyStructure, NestingIsCappedAt64Levels) {
    // n nested multiparts around a leaf with no parameter list: n + 1 levels.
    auto nested = [](int n) {
        std::string s(static_cast<size_t>(n), '(');
        s += "(\"text\" \"plain\" NIL NIL NIL \"7bit\" 1 1)";
        for (int i = 0; i < n; ++i) s += " \"mixed\")";
        return fetchLine(s);
    };
    Parse deepest({nested(63)});
    ASSERT_TRUE(deepest.ok) << deepest.error();
    EXPECT_EQ(deepest.s.getNumParts(), 64);
    std::string leafId = "1";
    for (int i = 1; i < 63; ++i) leafId += ".1";
    EXPECT_TRUE(deepest.s.getPart(63)->m_partId.equals(leafId.c_str()));

    Parse tooDeep({nested(64)});
    EXPECT_FALSE(tooDeep.ok);
    EXPECT_NE(tooDeep.error().find("nesting deeper than 64 levels"), std::string::npos) << tooDeep.error();
    expectConsistent(tooDeep);

    const std::string flood = fetchLine(std::string(10000, '('));
    Parse hostile({flood});
    EXPECT_FALSE(hostile.ok);
    // reported at the 65th '(' inside the innermost container still accepted
    std::string level64 = "1";
    for (int i = 0; i < 62; ++i) level64 += ".1";
    EXPECT_EQ(hostile.error(), "BODYSTRUCTURE parse error at offset " +
                                   std::to_string(flood.find("BODYSTRUCTURE (") + 14 + 64) + " in part " + level64 +
                                   ": nesting deeper than 64 levels");
    Parse envelope({fetchLine("(\"message\" \"rfc822\" NIL NIL NIL \"7bit\" 1 " + std::string(10000, '(') + ")")});
    EXPECT_FALSE(envelope.ok);
    EXPECT_NE(envelope.error().find("nesting deeper than 64 levels"), std::string::npos) << envelope.error();
}

TEST(BodyStructure, EveryTruncationFailsCleanlyUntilTheStructureCloses) {
    const std::string line = forwardedLine();
    const size_t lastParen = line.size() - 4;  // the structure's closing ')'
    ASSERT_EQ(line.substr(lastParen), "))\r\n");
    for (size_t len = 0; len < line.size(); ++len) {
        Parse p({line.substr(0, len)});
        SCOPED_TRACE("prefix of " + std::to_string(len) + " bytes");
        expectConsistent(p);
        EXPECT_EQ(p.ok, len > lastParen);
    }
}

// Random bytes are fuzz_bodystructure's job.
TEST(BodyStructure, MutatedBytesNeverBreakIt) {
    const std::vector<std::string> seeds = {forwardedLine(), fetchLine("(\"application\" \"pdf\" (\"name\" {6}\r\na\r\nb)c) "
                                                                      "NIL NIL \"base64\" 10 NIL (\"attachment\" NIL))")};
    static const char kReplacements[] = "()\"{}\\ \0009N~\r";
    const std::string replacements(kReplacements, sizeof kReplacements - 1);
    int accepted = 0, refused = 0;
    for (const std::string& seed : seeds)
        for (size_t i = 0; i < seed.size(); ++i)
            for (char r : replacements) {
                std::string mutated = seed;
                mutated[i] = r;
                Parse p({mutated});
                expectConsistent(p);
                (p.ok ? accepted : refused)++;
            }
    EXPECT_GT(accepted, 0);  // lenient, not rejecting everything
    EXPECT_GT(refused, 0);
}
