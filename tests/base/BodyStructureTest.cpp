#include <gtest/gtest.h>

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

enum Outcome { Parses, Fails, Either };

struct Parse {
    ImapResultSet rs;
    ImapMsgSummary s;
    MemoryLog log;
    bool ok = false;
    explicit Parse(const std::vector<std::string>& lines, Outcome want = Parses) {
        fill(rs, lines);
        ok = rs.parseSummary(s, "(UID BODYSTRUCTURE)", log);
        EXPECT_TRUE(want == Either || ok == (want == Parses)) << (ok ? "parsed" : error());
        expectConsistent();
    }
    // Invariants of every outcome: a failure leaves nothing behind; a success
    // has unique specifiers and a count that matches the flags.
    void expectConsistent() const {
        EXPECT_EQ(s.m_loaded, ok ? 1 : 0);
        EXPECT_EQ(error().empty(), ok);
        EXPECT_EQ(s.getNumParts() > 0, ok) << ids();
        std::set<std::string> seen;
        int flagged = 0;
        for (int i = 0; i < s.getNumParts(); ++i) {
            EXPECT_TRUE(seen.insert(s.getPart(i)->m_partId.getString()).second) << ids();
            flagged += s.getPart(i)->m_isAttachment ? 1 : 0;
        }
        EXPECT_EQ(flagged, s.m_numAttachments);
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
    // Part i in one line: "[id]* type/subtype encoding size" ("*" after an
    // attachment; encoding and size when set), then the fields that are set.
    std::string part(int i) const {
        const ImapMsgPart* p = s.getPart(i);
        if (!p) return "<no part " + std::to_string(i) + ">";
        std::string out = "[" + std::string(p->m_partId.getString()) + "]" + (p->m_isAttachment ? "* " : " ") +
                          p->m_contentType.getString() + "/" + p->m_subType.getString();
        if (p->m_encoding.getSize()) out += std::string(" ") + p->m_encoding.getString();
        if (p->m_size) out += " " + std::to_string(p->m_size);
        const std::pair<const char*, const StringBuffer*> fields[] = {
            {"disp", &p->m_disposition}, {"file", &p->m_filename}, {"name", &p->m_name},
            {"charset", &p->m_charset},  {"cid", &p->m_contentId}, {"desc", &p->m_description}};
        for (const auto& [key, value] : fields)
            if (value->getSize()) out += std::string(" ") + key + "=" + value->getString();
        return out;
    }
};

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
    EXPECT_EQ(plain.ids(), "[1]");
    EXPECT_EQ(plain.part(0), "[1] TEXT/PLAIN 7BIT 3028 charset=US-ASCII");
    EXPECT_EQ(plain.s.m_uid, 7u);
    EXPECT_EQ(plain.best("1"), "1");

    Parse mixed({fetchLine(
        "((\"TEXT\" \"PLAIN\" (\"CHARSET\" \"US-ASCII\") NIL NIL \"7BIT\" 1152 23)(\"TEXT\" \"PLAIN\" (\"CHARSET\" "
        "\"US-ASCII\" \"NAME\" \"cc.diff\") \"<960723163407.20117h@cac.washington.edu>\" \"Compiler diff\" \"BASE64\" "
        "4554 73) \"MIXED\")")});
    EXPECT_EQ(mixed.ids(), "[],[1],[2]*");
    EXPECT_EQ(mixed.part(0), "[] multipart/MIXED");
    EXPECT_EQ(mixed.part(1), "[1] TEXT/PLAIN 7BIT 1152 charset=US-ASCII");
    EXPECT_EQ(mixed.part(2), "[2]* TEXT/PLAIN BASE64 4554 name=cc.diff charset=US-ASCII "  // named, not the body
                             "cid=<960723163407.20117h@cac.washington.edu> desc=Compiler diff");
    EXPECT_EQ(mixed.best(""), "1");
}

TEST(BodyStructure, AlternativeMixedAndRelatedAsServersSendThem) {
    Parse alt({fetchLine("((\"text\" \"plain\" (\"charset\" \"utf-8\") NIL NIL \"quoted-printable\" 120 4 NIL NIL NIL NIL)"
                         "(\"text\" \"html\" (\"charset\" \"utf-8\") NIL NIL \"quoted-printable\" 800 12 NIL NIL NIL NIL) "
                         "\"alternative\" (\"boundary\" \"b1\") NIL NIL NIL)")});
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
    EXPECT_EQ(mixed.ids(), "[],[1],[2]*,[3]*");
    EXPECT_EQ(mixed.part(2), "[2]* application/pdf base64 70000 disp=attachment file=report.pdf name=report.pdf");
    EXPECT_EQ(mixed.part(3), "[3]* image/png base64 2000 disp=inline file=chart.png name=chart.png cid=<chart@x>");

    // Exchange style: upper case, an embedded image that only the HTML shows.
    Parse related({fetchLine(
        "((\"TEXT\" \"HTML\" (\"CHARSET\" \"utf-8\") NIL NIL \"QUOTED-PRINTABLE\" 500 10 NIL NIL \"en-US\" NIL)"
        "(\"IMAGE\" \"JPEG\" (\"NAME\" \"image001.jpg\") \"<image001.jpg@01D0>\" \"image001.jpg\" \"BASE64\" 3000 NIL "
        "(\"inline\" (\"FILENAME\" \"image001.jpg\" \"SIZE\" \"2190\")) NIL NIL) \"RELATED\" (\"BOUNDARY\" \"x\" \"TYPE\" "
        "\"text/html\") NIL \"en-US\")")});
    EXPECT_EQ(related.ids(), "[],[1],[2]");
    EXPECT_EQ(related.part(2), "[2] IMAGE/JPEG BASE64 3000 disp=inline file=image001.jpg name=image001.jpg "
                               "cid=<image001.jpg@01D0> desc=image001.jpg");
    EXPECT_EQ(related.best(""), "1");

    // Outlook: mixed(related(alternative(plain, html), image), attachment)
    Parse nested({fetchLine(
        "((((\"text\" \"plain\" (\"charset\" \"utf-8\") NIL NIL \"7bit\" 10 1)(\"text\" \"html\" (\"charset\" \"utf-8\") "
        "NIL NIL \"7bit\" 20 1) \"alternative\")(\"image\" \"gif\" (\"name\" \"logo.gif\") \"<logo>\" NIL \"base64\" 99) "
        "\"related\")(\"application\" \"vnd.ms-excel\" (\"name\" \"q3.xls\") NIL NIL \"base64\" 4096 NIL (\"attachment\" "
        "NIL)) \"mixed\")")});
    EXPECT_EQ(nested.ids(), "[],[1],[1.1],[1.1.1],[1.1.2],[1.2],[2]*");  // the inline image is no attachment
    EXPECT_TRUE(nested.s.getPart(1)->isType("multipart", "related"));
    EXPECT_EQ(nested.part(6), "[2]* application/vnd.ms-excel base64 4096 disp=attachment name=q3.xls");  // no file=
    EXPECT_EQ(nested.best("1"), "1.1.1");
    EXPECT_EQ(nested.best("2"), "none");
}

TEST(BodyStructure, ForwardedMessagesAreOneAttachmentWithImapNumbering) {
    Parse fwd({forwardedLine()});
    EXPECT_EQ(fwd.ids(), "[],[1],[2]*,[2.TEXT],[2.1],[2.2]");
    EXPECT_EQ(fwd.part(2), "[2]* message/rfc822 7bit 5000 disp=attachment file=fwd.eml name=old \"(1)\".eml");
    EXPECT_EQ(fwd.part(3), "[2.TEXT] multipart/alternative");
    EXPECT_EQ(fwd.part(4), "[2.1] text/plain 7bit 300 charset=us-ascii");
    EXPECT_EQ(fwd.best(""), "1");  // the outer HTML, not the forwarded plain text
    EXPECT_EQ(fwd.best("2"), "2.1");

    Parse single({fetchLine(std::string("((\"TEXT\" \"PLAIN\" NIL NIL NIL \"7BIT\" 5 1)(\"MESSAGE\" \"RFC822\" NIL NIL NIL "
                                        "\"7BIT\" 900 ") +
                            kEnvelope +
                            " (\"APPLICATION\" \"PDF\" (\"NAME\" \"inner.pdf\") NIL NIL \"BASE64\" 400) 20) \"MIXED\")")});
    EXPECT_EQ(single.ids(), "[],[1],[2]*,[2.1]");  // the PDF inside the forwarded message is not counted
    EXPECT_EQ(single.best("2"), "none");

    // A forward of a forward: each level keeps its own text.
    const std::string innerFwd = std::string("(\"message\" \"rfc822\" NIL NIL NIL \"7bit\" 50 ") + kEnvelope +
                                 " (\"text\" \"plain\" NIL NIL NIL \"7bit\" 5 1) 2)";
    Parse twice({fetchLine(std::string("((\"text\" \"plain\" NIL NIL NIL \"7bit\" 5 1)(\"message\" \"rfc822\" NIL NIL "
                                       "NIL \"7bit\" 90 ") +
                           kEnvelope + " ((\"text\" \"html\" NIL NIL NIL \"7bit\" 9 1)" + innerFwd +
                           " \"mixed\") 9) \"mixed\")")});
    EXPECT_EQ(twice.ids(), "[],[1],[2]*,[2.TEXT],[2.1],[2.2],[2.2.1]");
    EXPECT_EQ(twice.best("2"), "2.1");      // its own HTML beats the plain text it forwards
    EXPECT_EQ(twice.best("2.2"), "2.2.1");

    // A server that treats message/rfc822 as a basic part sends no envelope.
    Parse basic({fetchLine("(\"message\" \"rfc822\" NIL NIL NIL \"7bit\" 900 NIL NIL NIL NIL)")});
    EXPECT_EQ(basic.ids(), "[1]*");
}

TEST(BodyStructure, ExtensionDataNilCaseAndLenientForms) {
    const std::string leaf = "(\"text\" \"plain\" (\"charset\" \"utf-8\") NIL NIL \"8bit\" 12 1";
    Parse withBody({"* 1 FETCH (BODY (" + leaf.substr(1) + ") UID 3)\r\n"});
    Parse withExt({fetchLine(leaf + " \"md5sum\" (\"inline\" NIL) (\"en\" \"de\") \"loc\" (\"x\" (1 (2)) {3}\r\nabc) 42 "
                                    "nil)")});
    EXPECT_EQ(withBody.part(0), "[1] text/plain 8bit 12 charset=utf-8");
    EXPECT_EQ(withExt.part(0), "[1] text/plain 8bit 12 disp=inline charset=utf-8");
    EXPECT_EQ(withBody.s.m_uid, 3u);  // items after the structure are read too

    // NIL for the parameters, encoding, size, line count; odd and empty lists
    // of parameters; a bare disposition string; a missing subtype tail.
    Parse nils({fetchLine("((nil \"octet-stream\" NIL NIL NIL NIL NIL NIL \"attachment\")(\"Text\" \"Plain\" (\"ChArSeT\" "
                          "\"UTF-8\" \"name\") NIL NIL \"7bit\" 1 NIL)(\"image\" \"png\" () NIL NIL \"base64\" 9)("
                          "\"application\" \"zip\" (\"name\") NIL NIL \"base64\" 9 NIL (\"ATTACHMENT\" (\"FileName\" "
                          "\"A.ZIP\")))(\"audio\" \"basic\") \"Mixed\")")});
    EXPECT_EQ(nils.ids(), "[],[1]*,[2],[3]*,[4]*,[5]*");
    EXPECT_EQ(nils.part(1), "[1]* /octet-stream disp=attachment");
    EXPECT_EQ(nils.part(2), "[2] Text/Plain 7bit 1 charset=UTF-8");
    EXPECT_EQ(nils.part(3), "[3]* image/png base64 9");  // unnamed file in a mixed
    EXPECT_EQ(nils.part(4), "[4]* application/zip base64 9 disp=ATTACHMENT file=A.ZIP");
    EXPECT_EQ(nils.part(5), "[5]* audio/basic");

    Parse upper({"* 9 fetch (uid 11 bodystructure (\"TEXT\" \"HTML\" NIL NIL NIL \"BASE64\" 4294967296 "
                 "7 NIL (\"inline\" (\"filename\" \"body.html\"))))\r\n"});
    // The size saturates rather than wraps; the message's own text is no
    // attachment despite its file name.
    EXPECT_EQ(upper.part(0), "[1] TEXT/HTML BASE64 4294967295 disp=inline file=body.html");
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
    EXPECT_EQ(lit.s.m_uid, 8u);
    EXPECT_EQ(lit.part(0), "[1]* application/pdf base64 10 disp=attachment file=it\"s (1).pdf name=a\r\nb)c");

    auto fileName = [](const std::string& dispParams, const std::string& typeParams = "NIL") {
        Parse p({fetchLine("(\"application\" \"octet-stream\" " + typeParams + " NIL NIL \"base64\" 1 NIL (\"attachment\" " +
                           dispParams + "))")});
        const ImapMsgPart* part = p.s.getPart(0);
        return part ? std::string((dispParams == "NIL" ? part->m_name : part->m_filename).getString()) : "?";
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
    EXPECT_EQ(p.s.m_uid, 99u);
    EXPECT_EQ(p.s.m_rfc822Size, 4567u);
    EXPECT_STREQ(p.s.m_flags.getString(), "\\Seen $Forwarded");
    EXPECT_TRUE(p.s.getPart(0)->isType("text", "plain"));

    // Items of a line without a structure do not leak into the result.
    Parse fresh({"* 2 FETCH (FLAGS (\\Seen) RFC822.SIZE 9 UID 4)\r\n",
                 "* 3 FETCH (UID 5 BODYSTRUCTURE (\"text\" \"plain\" NIL NIL NIL \"7bit\" 1 1) RFC822.SIZE "
                 "99999999999999999999999)\r\n"});
    EXPECT_EQ(fresh.s.m_uid, 5u);
    EXPECT_STREQ(fresh.s.m_flags.getString(), "");
    EXPECT_EQ(fresh.s.m_rfc822Size, UINT64_MAX);

    Parse none({"* 2 FETCH (FLAGS (\\Seen) UID 4)\r\n", "* 2 FETCH (BODY[] {2}\r\nab)\r\n"}, Fails);
    EXPECT_EQ(none.error(), "No FETCH response with a BODYSTRUCTURE found");
    EXPECT_EQ(none.s.m_uid, 0u);  // not left over from a line without a structure
    ASSERT_NE(none.log.firstData("fetchItems"), nullptr);
    EXPECT_EQ(*none.log.firstData("fetchItems"), "(UID BODYSTRUCTURE)");

    // The first structure is the one asked for: a later message's never
    // stands in for it.
    Parse firstBroken({fetchLine("(\"text\" \"plain\" (\"name\" \"x"),
                       "* 2 FETCH (UID 8 BODYSTRUCTURE (\"text\" \"plain\" NIL NIL NIL \"7bit\" 1 1))\r\n"},
                      Fails);
    EXPECT_NE(firstBroken.error().find("unterminated quoted string"), std::string::npos) << firstBroken.error();

    // A loaded summary that is parsed again from a bad response ends cleared.
    ASSERT_EQ(p.s.m_loaded, 1);
    fill(p.rs, {fetchLine("(\"multipart\" \"mixed\")")});
    EXPECT_FALSE(p.rs.parseSummary(p.s, nullptr, p.log));
    EXPECT_EQ(p.s.m_loaded, 0);
    EXPECT_EQ(p.s.getNumParts(), 0);
    EXPECT_EQ(p.s.m_uid, 0u);
}

TEST(BodyStructure, ErrorsNameTheProblemAndOffset) {
    struct Case {
        std::string line, pointAt;  // the error's offset is that of pointAt in line
        std::string message;        // the text after "at offset N"
    };
    const std::string bigLiteral = fetchLine("(\"text\" \"plain\" (\"name\" {999}\r\nabc) NIL NIL \"7bit\" 1 1)");
    const std::string hugeLiteral =
        fetchLine("(\"text\" \"plain\" (\"name\" {99999999999999999999999}\r\nabc) NIL NIL \"7bit\" 1 1)");
    // bytes after the "{n}\r\n" of the first literal
    auto left = [](const std::string& line) { return std::to_string(line.size() - (line.find("}\r\n") + 3)); };
    const Case cases[] = {
        {fetchLine("X"), "X)", ": expected '(' to open a body but found 'X'"},
        {fetchLine("(\"MULTIPART\" \"MIXED\" NIL NIL NIL \"7BIT\" 0)"), "\"MULTIPART\"",
         " in part 1: multipart body with no parts"},
        {fetchLine("(\"text\" \"plain\" (\"name\" \"abc"), "\"abc", " in part 1: unterminated quoted string"},
        {bigLiteral, "{999}",
         " in part 1: literal of 999 bytes runs past the end of the line (" + left(bigLiteral) + " bytes left)"},
        {hugeLiteral, "{9",
         " in part 1: literal of 18446744073709551615 bytes runs past the end of the line (" + left(hugeLiteral) +
             " bytes left)"},
        {"* 1 FETCH (UID 7 BODYSTRUCTURE ((\"text\" \"plain\" NIL NIL NIL \"7bit\" 1 1) \"mixed\"\r\n", "\r\n",
         " in the top-level multipart: expected ')' to close the body but found the end of the line"},
        {fetchLine("(\"text\" (\"plain\") NIL NIL NIL \"7bit\" 1 1)"), "(\"plain",
         " in part 1: expected the media subtype (a string) but found '('"},
        {fetchLine(std::string("((\"text\" \"plain\" NIL NIL NIL \"7bit\" 1 1)(") + '\0' + "\"x\") \"mixed\")"),
         std::string(1, '\0'), " in part 2: expected the media type (a string) but found byte 0x00"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.message);
        const size_t offset = c.line.find(c.pointAt);
        ASSERT_NE(offset, std::string::npos);
        Parse p({c.line}, Fails);
        EXPECT_EQ(p.error(), "BODYSTRUCTURE parse error at offset " + std::to_string(offset) + c.message);
        EXPECT_NE(p.log.firstData("near"), nullptr);
    }
    const std::string items = "* 1 FETCH (UID 7 BODY[TEXT] {50}\r\nshort)\r\n";
    EXPECT_EQ(Parse({items}, Fails).error(), "FETCH response parse error at offset " + std::to_string(items.find('{')) +
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
    std::string level64 = "1";  // the id at the 64th level: 1.1.1...
    for (int i = 0; i < 62; ++i) level64 += ".1";
    Parse deepest({nested(63)});
    EXPECT_EQ(deepest.s.getNumParts(), 64);
    EXPECT_EQ(deepest.part(63), "[" + level64 + "] text/plain 7bit 1");

    Parse tooDeep({nested(64)}, Fails);
    EXPECT_NE(tooDeep.error().find("nesting deeper than 64 levels"), std::string::npos) << tooDeep.error();

    // reported at the 65th '(' inside the innermost container still accepted
    const std::string flood = fetchLine(std::string(10000, '('));
    EXPECT_EQ(Parse({flood}, Fails).error(), "BODYSTRUCTURE parse error at offset " +
                                                 std::to_string(flood.find("BODYSTRUCTURE (") + 14 + 64) + " in part " +
                                                 level64 + ": nesting deeper than 64 levels");
    Parse envelope({fetchLine("(\"message\" \"rfc822\" NIL NIL NIL \"7bit\" 1 " + std::string(10000, '(') + ")")},
                   Fails);
    EXPECT_NE(envelope.error().find("nesting deeper than 64 levels"), std::string::npos) << envelope.error();
}

TEST(BodyStructure, EveryTruncationFailsCleanlyUntilTheStructureCloses) {
    const std::string line = forwardedLine();
    const size_t lastParen = line.size() - 4;  // the structure's closing ')'
    ASSERT_EQ(line.substr(lastParen), "))\r\n");
    for (size_t len = 0; len < line.size(); ++len) {
        SCOPED_TRACE("prefix of " + std::to_string(len) + " bytes");
        Parse({line.substr(0, len)}, len > lastParen ? Parses : Fails);
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
                Parse p({mutated}, Either);
                (p.ok ? accepted : refused)++;
            }
    EXPECT_GT(accepted, 0);  // lenient, not rejecting everything
    EXPECT_GT(refused, 0);
}
