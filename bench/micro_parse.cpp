// Response parsing: _zrImap::parseFlagsAndSize on the line that announces a
// message, and ImapResultSet::parseSummary on body structures as a real
// server (the test Dovecot) sends them, plus one synthetic structure with
// many attachments.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "zrimap/engine.h"

namespace {

// --- parseFlagsAndSize ---

const char* const kFetchHeads[] = {
    // What a server sends for BODY[] of an unflagged message.
    "* 17 FETCH (UID 17 FLAGS () INTERNALDATE \"03-Jun-2024 10:00:00 +0000\" BODY[] {2345}\r\n",
    // Several flags and keywords.
    "* 4711 FETCH (UID 98213 FLAGS (\\Seen \\Answered \\Flagged $Forwarded $Label1 NonJunk) "
    "INTERNALDATE \"17-Jul-1996 02:44:25 -0700\" BODY[] {104857600}\r\n",
};

void BM_ParseFlagsAndSize(benchmark::State& st) {
    zr::_zrImap imap;
    zr::LogNull log;
    zr::StringBuffer text(kFetchHeads[st.range(0)]);
    zr::ImapFlags flags;
    zr::StringBuffer date;
    unsigned size = 0;
    for (auto _ : st) {
        if (!imap.parseFlagsAndSize(text, size, flags, date, log)) {
            st.SkipWithError("parse failed");
            break;
        }
        benchmark::DoNotOptimize(size);
    }
    st.SetItemsProcessed(static_cast<int64_t>(st.iterations()));
}
BENCHMARK(BM_ParseFlagsAndSize)->ArgName("variant")->Arg(0)->Arg(1);

// --- parseSummary ---

struct Structure {
    const char* name;
    std::string line;
};

// The many-attachment case: a multipart/mixed with a text body and 50
// named attachments, built like the seeded message with attachments.
std::string manyAttachments() {
    std::string s = "* 9 FETCH (UID 9 RFC822.SIZE 5242880 FLAGS (\\Seen) BODYSTRUCTURE ((\"text\" \"plain\" "
                    "(\"charset\" \"us-ascii\") NIL NIL \"7bit\" 93 3 NIL NIL NIL NIL)";
    for (int i = 0; i < 50; ++i) {
        const std::string name = "scan-" + std::to_string(i) + ".pdf";
        s += "(\"application\" \"pdf\" (\"name\" \"" + name + "\") NIL NIL \"base64\" 104858 NIL (\"attachment\" "
             "(\"filename\" \"" + name + "\")) NIL NIL)";
    }
    s += " \"mixed\" (\"boundary\" \"=_mixed_boundary_1\") NIL NIL NIL))\r\n";
    return s;
}

const std::vector<Structure>& structures() {
    static const std::vector<Structure> all = {
        {"text_plain",
         "* 1 FETCH (UID 1 RFC822.SIZE 347 FLAGS (\\Recent) BODYSTRUCTURE (\"text\" \"plain\" (\"charset\" "
         "\"us-ascii\") NIL NIL \"7bit\" 65 6 NIL NIL NIL NIL))\r\n"},
        {"alternative",
         "* 4 FETCH (UID 4 RFC822.SIZE 624 FLAGS (\\Flagged \\Seen \\Recent) BODYSTRUCTURE ((\"text\" \"plain\" "
         "(\"charset\" \"UTF-8\") NIL NIL \"7bit\" 23 0 NIL NIL NIL NIL)(\"text\" \"html\" (\"charset\" \"UTF-8\") "
         "NIL NIL \"7bit\" 57 0 NIL NIL NIL NIL) \"alternative\" (\"boundary\" \"=_alt_boundary_1\") NIL NIL "
         "NIL))\r\n"},
        {"mixed_3_attachments",
         "* 5 FETCH (UID 5 RFC822.SIZE 42253 FLAGS (\\Recent) BODYSTRUCTURE ((\"text\" \"plain\" (\"charset\" "
         "\"us-ascii\") NIL NIL \"7bit\" 93 0 NIL NIL NIL NIL)(\"application\" \"pdf\" (\"name\" \"report.pdf\") "
         "NIL NIL \"base64\" 41072 NIL (\"attachment\" (\"filename\" \"report.pdf\")) NIL NIL)(\"image\" \"png\" "
         "(\"name\" \"pixel.png\") NIL NIL \"base64\" 98 NIL (\"attachment\" (\"filename\" \"pixel.png\")) NIL "
         "NIL)(\"text\" \"plain\" (\"charset\" \"UTF-8\" \"name\" "
         "\"=?UTF-8?Q?Notizen_=C3=BCber_=C3=84rger.txt?=\") NIL NIL \"base64\" 52 0 NIL (\"attachment\" "
         "(\"filename*\" \"UTF-8''Notizen%20%C3%BCber%20%C3%84rger.txt\")) NIL NIL) \"mixed\" (\"boundary\" "
         "\"=_mixed_boundary_1\") NIL NIL NIL))\r\n"},
        {"forward_rfc822",
         "* 6 FETCH (UID 6 RFC822.SIZE 2457 FLAGS (\\Answered \\Seen \\Recent) BODYSTRUCTURE ((\"text\" "
         "\"plain\" (\"charset\" \"us-ascii\") NIL NIL \"7bit\" 46 0 NIL NIL NIL NIL)(\"message\" \"rfc822\" "
         "(\"name\" \"original.eml\") NIL NIL \"7bit\" 1930 (\"Thu, 28 Dec 2023 08:00:00 +0000\" \"Original "
         "message (inner)\" ((\"Carol\" NIL \"carol\" \"localhost\")) ((\"Carol\" NIL \"carol\" \"localhost\")) "
         "((\"Carol\" NIL \"carol\" \"localhost\")) ((\"Bob\" NIL \"bob\" \"localhost\")) NIL NIL NIL "
         "\"<inner-1@seed.localhost>\") ((\"text\" \"plain\" (\"charset\" \"us-ascii\") NIL NIL \"7bit\" 19 0 NIL "
         "NIL NIL NIL)(\"application\" \"octet-stream\" (\"name\" \"data.bin\") NIL NIL \"base64\" 1402 NIL "
         "(\"attachment\" (\"filename\" \"data.bin\")) NIL NIL) \"mixed\" (\"boundary\" \"=_inner_boundary\") NIL "
         "NIL NIL) 36 NIL (\"attachment\" (\"filename\" \"original.eml\")) NIL NIL) \"mixed\" (\"boundary\" "
         "\"=_fwd_boundary\") NIL NIL NIL))\r\n"},
        {"alternative_related",
         "* 7 FETCH (UID 7 RFC822.SIZE 964 FLAGS (\\Recent $Label1) BODYSTRUCTURE ((\"text\" \"plain\" "
         "(\"charset\" \"us-ascii\") NIL NIL \"7bit\" 31 0 NIL NIL NIL NIL)((\"text\" \"html\" (\"charset\" "
         "\"UTF-8\") NIL NIL \"quoted-printable\" 89 0 NIL NIL NIL NIL)(\"image\" \"png\" NIL "
         "\"<logo@seed.localhost>\" NIL \"base64\" 98 NIL (\"inline\" (\"filename\" \"logo.png\")) NIL NIL) "
         "\"related\" (\"boundary\" \"=_related\" \"type\" \"text/html\") NIL NIL NIL) \"alternative\" "
         "(\"boundary\" \"=_alt_outer\") NIL NIL NIL))\r\n"},
        {"mixed_50_attachments", manyAttachments()},
    };
    return all;
}

void BM_ParseSummary(benchmark::State& st) {
    const Structure& s = structures()[static_cast<size_t>(st.range(0))];
    st.SetLabel(s.name);
    zr::ImapResultSet rs;
    rs.getArray2().appendString(s.line.c_str());
    rs.getArray2().appendString("aaac OK Fetch completed.\r\n");
    zr::ImapMsgSummary summary;
    zr::LogNull log;
    for (auto _ : st) {
        if (!rs.parseSummary(summary, "(UID BODYSTRUCTURE)", log)) {
            st.SkipWithError("parse failed");
            break;
        }
        benchmark::DoNotOptimize(summary.m_numAttachments);
    }
    st.SetItemsProcessed(static_cast<int64_t>(st.iterations()));
    st.SetBytesProcessed(static_cast<int64_t>(st.iterations() * s.line.size()));
}
BENCHMARK(BM_ParseSummary)->ArgName("structure")->DenseRange(0, 5);

}  // namespace
