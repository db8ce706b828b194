#include "zrimap/base/ImapMsgSummary.h"

#include <new>
#include <set>
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
    m_uid = 0;
    m_rfc822Size = 0;
    m_flags.clear();
}

ImapMsgPart* ImapMsgSummary::findMsgPart(const char* partId) const {
    if (!partId) return nullptr;
    for (int i = 0; i < m_parts.getSize(); ++i) {
        ImapMsgPart* part = getPart(i);
        if (part && part->m_partId.equals(partId)) return part;
    }
    return nullptr;
}

namespace {

bool isEncapsulatedMessage(const ImapMsgPart& part) {
    return part.m_contentType.equalsIgnoreCase("message") &&
           (part.m_subType.equalsIgnoreCase("rfc822") || part.m_subType.equalsIgnoreCase("global"));
}

// `id` is `root` or lies below it; the empty root is the whole message.
bool atOrBelow(const StringBuffer& id, const std::string& root) {
    return root.empty() || id.equals(root.c_str()) || id.beginsWith((root + ".").c_str());
}

// Inside an encapsulated message that lies strictly below `root`: one of the
// specifier's proper prefixes (cut at a '.') names such a message.
bool insideNestedMessage(const std::string& id, const std::string& root, const std::set<std::string>& messages) {
    for (size_t dot = id.find('.'); dot != std::string::npos; dot = id.find('.', dot + 1)) {
        const std::string ancestor = id.substr(0, dot);
        if (ancestor.size() > root.size() && messages.count(ancestor)) return true;
    }
    return false;
}

}  // namespace

bool ImapMsgSummary::findBestMsgPart(StringBuffer& partId) const {
    try {
        const std::string root = partId.getString();
        std::set<std::string> messages;
        for (int i = 0; i < m_parts.getSize(); ++i) {
            const ImapMsgPart* part = getPart(i);
            if (part && isEncapsulatedMessage(*part)) messages.insert(part->m_partId.getString());
        }
        // [outside a nested message, inside one][plain, html, other text]
        const ImapMsgPart* best[2][3] = {{nullptr, nullptr, nullptr}, {nullptr, nullptr, nullptr}};
        for (int i = 0; i < m_parts.getSize(); ++i) {
            const ImapMsgPart* part = getPart(i);
            if (!part || part->m_isAttachment || !part->m_contentType.equalsIgnoreCase("text")) continue;
            if (!atOrBelow(part->m_partId, root)) continue;
            const int tier = insideNestedMessage(part->m_partId.getString(), root, messages) ? 1 : 0;
            const int rank = part->m_subType.equalsIgnoreCase("plain") ? 0 : part->m_subType.equalsIgnoreCase("html") ? 1 : 2;
            if (!best[tier][rank]) best[tier][rank] = part;
        }
        for (const auto& tier : best)
            for (const ImapMsgPart* part : tier)
                if (part) return partId.setString(part->m_partId);
    } catch (const std::bad_alloc&) {
    }
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
