// ImapFlags: the flags of one message as the server reported them
// ("\Seen", "$Forwarded", any keyword), in insertion order, spelled as
// received. Flags are compared without regard to case.
#pragma once

#include "zrimap/base/ExtPtrArray.h"

namespace zr {

class StringBuffer;

class ImapFlags {
public:
    ImapFlags() = default;
    virtual ~ImapFlags();
    ImapFlags(const ImapFlags&) = delete;
    ImapFlags& operator=(const ImapFlags&) = delete;

    void clearImapFlags();
    // Replaces the set with the space-separated words of flagList, as they
    // stand: duplicates are kept, doubled spaces give empty entries.
    void setFlags(StringBuffer& flagList);
    // Adds flag unless an entry equals it ignoring case.
    void setFlag(const char* flag);
    // Removes the first entry that equals flag ignoring case.
    void clearFlag(const char* flag);
    bool isFlagSet(const char* flag);
    // Appends the entries separated by single spaces; out is not cleared.
    void getAllFlags(StringBuffer& out);

    int getNumFlags() const { return m_flags.getSize(); }

private:
    ExtPtrArraySb m_flags;
};

}  // namespace zr
