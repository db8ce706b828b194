// Small builders of command text shared by the engine's command files.
#pragma once

#include "zrimap/base/StringBuffer.h"

namespace zr {
namespace wire {

// Appends `"text"` with no escaping: names arrive encoded as the caller
// wants them on the wire.
inline void appendQuoted(StringBuffer& out, const char* text) {
    out.appendChar('"');
    out.append(text);
    out.appendChar('"');
}

// "word " or, when the message numbers are UIDs, "UID word ".
inline StringBuffer commandWord(bool bUid, const char* word) {
    StringBuffer text(bUid ? "UID " : "");
    text.append(word);
    text.appendChar(' ');
    return text;
}

}  // namespace wire
}  // namespace zr
