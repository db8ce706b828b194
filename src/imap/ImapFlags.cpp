#include "zrimap/imap/ImapFlags.h"

#include "zrimap/base/StringBuffer.h"

namespace zr {

ImapFlags::~ImapFlags() { m_flags.removeAllSbs(); }

void ImapFlags::clearImapFlags() { m_flags.removeAllSbs(); }

void ImapFlags::setFlags(StringBuffer& flagList) {
    clearImapFlags();
    flagList.split(m_flags, ' ', false, false);
}

void ImapFlags::setFlag(const char* flag) {
    if (isFlagSet(flag)) return;
    if (StringBuffer* sb = StringBuffer::createNewSB(flag)) m_flags.appendPtr(sb);
}

void ImapFlags::clearFlag(const char* flag) {
    for (int i = 0; i < m_flags.getSize(); ++i) {
        StringBuffer* sb = m_flags.sbAt(i);
        if (sb && sb->equalsIgnoreCase(flag)) {
            m_flags.removeAt(i);
            StringBuffer::deleteSb(sb);
            return;
        }
    }
}

bool ImapFlags::isFlagSet(const char* flag) {
    for (int i = 0; i < m_flags.getSize(); ++i) {
        const StringBuffer* sb = m_flags.sbAt(i);
        if (sb && sb->equalsIgnoreCase(flag)) return true;
    }
    return false;
}

void ImapFlags::getAllFlags(StringBuffer& out) {
    for (int i = 0; i < m_flags.getSize(); ++i) {
        const StringBuffer* sb = m_flags.sbAt(i);
        if (!sb) continue;
        // The separator follows the index, not what was written: a null first
        // entry leaves a leading space.
        if (i != 0) out.appendChar(' ');
        out.append(*sb);
    }
}

}  // namespace zr
