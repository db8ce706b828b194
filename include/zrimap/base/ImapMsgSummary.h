// The parsed structure of one message: its parts in structure order and the
// number of attachments. Filled from a FETCH BODYSTRUCTURE response.
#pragma once

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
    StringBuffer m_charset;
    StringBuffer m_name;         // the "name" content-type parameter
    StringBuffer m_contentId;
    StringBuffer m_description;
    StringBuffer m_encoding;     // content-transfer-encoding
    StringBuffer m_disposition;  // e.g. "attachment", "inline"
    StringBuffer m_filename;     // the disposition's "filename" parameter
    unsigned m_size = 0;         // body size in octets, as the server states it
    bool m_isAttachment = false;

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
    // text part of any subtype. False, partId unchanged, when there is none.
    bool findBestMsgPart(StringBuffer& partId) const;

    // Logs each part: specifier, type/subtype and its notable fields.
    void logMsgParts(LogBase& log) const;
};

}  // namespace zr
