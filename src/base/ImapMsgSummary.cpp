#include "zrimap/base/ImapMsgSummary.h"

#include <new>
#include <string>

#include "zrimap/base/LogBase.h"

namespace zr {

bool ImapMsgPart::isType(const char* type, const char* subType) const {
    return m_contentType.equalsIgnoreCase(type) && m_subType.equalsIgnoreCase(subType);
}

ImapMsgSummary* ImapMsgSummary::createNewObject() { return new (std::nothrow) ImapMsgSummary(); }

ImapMsgSummary::~ImapMsgSummary() = default;

ImapMsgPart* ImapMsgSummary::getPart(int i) const { return dynamic_cast<ImapMsgPart*>(m_parts.elementAt(i)); }

bool ImapMsgSummary::appendPart(ImapMsgPart* part) { return m_parts.appendPtr(part); }

void ImapMsgSummary::clear() {
    m_parts.removeAllObjects();
    m_loaded = 0;
    m_numAttachments = 0;
}

ImapMsgPart* ImapMsgSummary::findMsgPart(const char* partId) const {
    if (!partId) return nullptr;
    for (int i = 0; i < m_parts.getSize(); ++i) {
        ImapMsgPart* part = getPart(i);
        if (part && part->m_partId.equals(partId)) return part;
    }
    return nullptr;
}

bool ImapMsgSummary::findBestMsgPart(StringBuffer& partId) const {
    const std::string root = partId.getString();
    const std::string below = root + ".";
    const ImapMsgPart* best[3] = {nullptr, nullptr, nullptr};  // plain, html, other text
    for (int i = 0; i < m_parts.getSize(); ++i) {
        const ImapMsgPart* part = getPart(i);
        if (!part || part->m_isAttachment || !part->m_contentType.equalsIgnoreCase("text")) continue;
        if (!part->m_partId.equals(root.c_str()) && !part->m_partId.beginsWith(below.c_str())) continue;
        const int rank = part->m_subType.equalsIgnoreCase("plain") ? 0 : part->m_subType.equalsIgnoreCase("html") ? 1 : 2;
        if (!best[rank]) best[rank] = part;
    }
    for (const ImapMsgPart* part : best)
        if (part) return partId.setString(part->m_partId);
    return false;
}

void ImapMsgSummary::logMsgParts(LogBase& log) const {
    LogContextExitor ctx(log, "msgParts");
    log.LogDataLong("numAttachments", m_numAttachments);
    for (int i = 0; i < m_parts.getSize(); ++i) {
        const ImapMsgPart* part = getPart(i);
        if (!part) continue;
        std::string text = part->m_partId.isEmpty() ? std::string("(root)") : part->m_partId.getString();
        text += ": ";
        text += part->m_contentType.getString();
        text += "/";
        text += part->m_subType.getString();
        if (!part->m_charset.isEmpty()) text += std::string("; charset=") + part->m_charset.getString();
        if (!part->m_encoding.isEmpty()) text += std::string("; encoding=") + part->m_encoding.getString();
        text += "; size=" + std::to_string(part->m_size);
        if (!part->m_disposition.isEmpty()) text += std::string("; disposition=") + part->m_disposition.getString();
        if (!part->m_filename.isEmpty()) text += std::string("; filename=") + part->m_filename.getString();
        else if (!part->m_name.isEmpty()) text += std::string("; name=") + part->m_name.getString();
        if (part->m_isAttachment) text += "; attachment";
        log.logData("part", text.c_str());
    }
}

}  // namespace zr
