// The parsed structure of one message: its parts in structure order and the
// number of attachments. Filled from a FETCH BODYSTRUCTURE response by
// ImapResultSet::parseSummary.
//
// Part list and specifiers (RFC 3501 section 6.4.5 numbering)
//   One entry per node, in pre-order: a container comes before its children.
//   - A message that is not multipart has a single entry "1".
//   - A multipart message starts with its root container (type "multipart",
//     subtype as sent, specifier ""), then its children "1", "2", ...;
//     a nested multipart is numbered like any other child ("2"), its own
//     children are "2.1", "2.2", ...
//   - A message/rfc822 (or message/global) part "2" is an entry of its own,
//     followed by the body it encapsulates: a single-part body is "2.1"; a
//     multipart body is listed as the container "2.TEXT" (the specifier that
//     fetches that body whole), and its children are "2.1", "2.2", ...
//
// What counts as an attachment (ImapMsgPart::m_isAttachment)
//   The question a mail reader asks: would this part be listed as a file,
//   rather than shown as the message text or as part of it?
//   - Containers never are.
//   - A message/rfc822 or message/global part always is (a forwarded
//     message counts once); the parts inside it never count on their own.
//   - A part whose disposition is "attachment" always is.
//   - A child of a multipart/related (an embedded resource such as an image
//     referenced by Content-ID) without an "attachment" disposition is not.
//   - A text/plain or text/html part in a body position (the message's only
//     part, the first child of its multipart, or a child of a
//     multipart/alternative) without an "attachment" disposition is not,
//     even when it carries a name.
//   - Otherwise a part with a file name (the disposition's filename or the
//     content type's name parameter) is; a part without one is only when it
//     is a non-text part without a disposition that follows the first part
//     of a multipart/mixed (an unnamed file).
//   m_numAttachments counts the parts flagged so.
#pragma once

#include <cstdint>

#include "zrimap/base/ExtPtrArray.h"
#include "zrimap/base/StringBuffer.h"

namespace zr {

class LogBase;

// One node of the body structure: a leaf part or a multipart container.
class ImapMsgPart : public ZendrelObject {
public:
    StringBuffer m_partId;       // "1", "2.1", ...; "" for a root multipart
    StringBuffer m_contentType;  // as sent, e.g. "TEXT" or "multipart"
    StringBuffer m_subType;      // as sent, e.g. "PLAIN"
    StringBuffer m_charset;      // the "charset" parameter, as sent
    // The "name" content-type parameter. An RFC 2231 form (name*, name*0*,
    // ...) wins over the plain one; both it and RFC 2047 encoded words are
    // decoded to UTF-8. A charset the system cannot convert leaves the
    // decoded bytes as they are.
    StringBuffer m_name;
    StringBuffer m_contentId;
    StringBuffer m_description;  // as sent (not decoded)
    StringBuffer m_encoding;     // content-transfer-encoding
    StringBuffer m_disposition;  // e.g. "attachment", "inline"
    // The disposition's "filename" parameter, decoded as m_name is; empty
    // when the disposition has none (there is no fallback to m_name).
    StringBuffer m_filename;
    // Body size in octets, as the server states it; a number too large for
    // 32 bits is stored as 4294967295.
    unsigned m_size = 0;
    bool m_isAttachment = false;  // see the rule at the top of this file

    bool isMultipart() const { return m_contentType.equalsIgnoreCase("multipart"); }
    bool isType(const char* type, const char* subType) const;
};

class ImapMsgSummary {
public:
    // New empty summary, or null when memory runs out.
    static ImapMsgSummary* createNewObject();
    ImapMsgSummary() = default;
    virtual ~ImapMsgSummary();
    ImapMsgSummary(const ImapMsgSummary&) = delete;
    ImapMsgSummary& operator=(const ImapMsgSummary&) = delete;

    // Zero until a body structure has been parsed into the summary.
    int m_loaded = 0;
    int m_numAttachments = 0;

    // Message-level items that came in the same FETCH response as the body
    // structure; they keep these values when they were not fetched.
    unsigned m_uid = 0;           // UID (never 0 for a real message)
    uint64_t m_rfc822Size = 0;    // RFC822.SIZE
    // FLAGS, space-separated as sent, e.g. "\Seen $Forwarded"; empty when
    // not fetched or when no flag is set.
    StringBuffer m_flags;
    // The parts in structure order, containers included (ImapMsgPart).
    ExtPtrArray m_parts;

    int getNumParts() const { return m_parts.getSize(); }
    ImapMsgPart* getPart(int i) const;  // null when out of range
    bool appendPart(ImapMsgPart* part);  // the summary owns it from now on
    void clear();  // back to the unloaded, empty state

    // The part with that specifier, or null.
    ImapMsgPart* findMsgPart(const char* partId) const;

    // Given a specifier (typically "1"), replaces it with the specifier of
    // the best displayable part at or below it: the first text/plain part
    // that is not an attachment, else the first text/html one, else the first
    // text part of any subtype. An empty specifier stands for the whole
    // message. Text inside a message/rfc822 (or message/global) part that
    // lies below the given one is considered only when there is no candidate
    // outside it: a forwarded message's text is not the text of the message
    // that forwards it. False, partId unchanged, when there is none.
    bool findBestMsgPart(StringBuffer& partId) const;

    // Logs each part: specifier, type/subtype and its notable fields.
    void logMsgParts(LogBase& log) const;
};

}  // namespace zr
