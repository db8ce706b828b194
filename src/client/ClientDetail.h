// Pieces of the public API that have no business in client.h but deserve
// tests of their own: response parsing, UID sets, quoted-printable, UTF-8
// checks. Internal: not installed, not part of the stable interface.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "zrimap/client.h"

namespace zr {
namespace client_detail {

// --- UTF-8 ---

// Strict RFC 3629: no overlong forms, no surrogates, nothing past U+10FFFF.
bool isValidUtf8(const std::string& text);

// --- response text ---

// One token of an IMAP response. NIL is an Atom spelled "NIL"; a quoted
// string and a literal are both String (escapes resolved).
struct Token {
    enum class Kind { Atom, String, List };
    Kind kind = Kind::Atom;
    std::string text;           // Atom, String
    std::vector<Token> items;   // List
    bool isAtom(const char* word) const;  // case-insensitive
    bool isNil() const { return isAtom("NIL"); }
};

struct Response {
    std::vector<Token> tokens;
    std::string raw;  // the response's bytes, literals included, without the final line end
};

// Joins the lines of a result set the way they arrived. A line the engine
// stored without its line end (a SEARCH status split off its line) gets one.
std::string joinLines(const std::vector<std::string>& lines);

// Splits response text into responses. A line end ends a response except
// inside a literal ("{n}" CRLF and then n bytes, whether the collector
// joined them into one stored line or not). Malformed parts never throw:
// an unterminated string or list ends at the line end.
std::vector<Response> parseResponses(const std::string& text);

// "* LIST (\HasNoChildren) "/" name" (or LSUB); false for any other response.
bool parseListResponse(const Response& response, MailboxEntry& entry);

// The human part of a completion line: "a001 NO [ALERT] text" gives
// "[ALERT] text". Empty when there is nothing after the status word.
std::string completionText(const std::string& line);
// The status word of a completion line ("OK", "NO", "BAD"), upper case.
std::string completionStatus(const std::string& line);

// The events of the engine's IDLE report ("<idle>...</idle>").
std::vector<IdleEvent> parseIdleXml(const std::string& xml);

// --- message data ---

// RFC 2045 section 6.7: "=XX" escapes, soft line breaks, and the
// transport padding at line ends removed. A malformed escape is kept as
// it stands, the usual leniency of mail readers.
std::vector<uint8_t> decodeQuotedPrintable(const uint8_t* data, size_t n);

// Sorted, duplicate-free UIDs as compact sets ("1:5,7,9:10"), split so that
// no set is longer than maxLength characters (one number always fits).
std::vector<std::string> compactUidSets(std::vector<uint32_t> uids, size_t maxLength = 4000);

}  // namespace client_detail

// Reaches into a client for tests: lets a test pretend the server lacks a
// capability it has, so that fallbacks can be driven against a real server.
struct ImapClientTesting {
    static void setCapabilities(ImapClient& client, std::vector<std::string> capabilities);
};

}  // namespace zr
