// The bound on what one response may make the engine hold in memory.
//
// The line reader keeps a single line within the BufferLimits ceiling, but
// the collectors keep every line of a response (each untagged line is a
// buffer of its own), so a server that never sends the completion could
// otherwise make them grow without end. Each collector call charges the
// lines it keeps against the ceiling; once past it the response is given up
// and the connection closed, because the rest of the response would still
// arrive and be taken for the answer to the next command.
#pragma once

#include <cstdint>
#include <string>

#include "zrimap/base/BufferLimits.h"
#include "zrimap/base/LogBase.h"
#include "zrimap/imap/zrImap.h"

namespace zr {

class ResponseBudget {
public:
    ResponseBudget() : m_limit(BufferLimits::getMaxBytes()) {}

    // Charges one kept line; false once the response has passed the ceiling.
    // A stored line costs more than its bytes (its buffer object, the
    // smallest block a buffer allocates, the slot in the array), so a flood
    // of tiny lines is bounded by the memory it really takes.
    bool charge(unsigned lineBytes) {
        m_used += static_cast<uint64_t>(lineBytes) + kPerLineCost;
        return m_used <= m_limit;
    }
    bool exceeded() const { return m_used > m_limit; }
    uint64_t limit() const { return m_limit; }

    // Reports the response as too large and closes the connection; returns
    // false for the caller to pass on.
    bool fail(_zrImap& imap, LogBase& log) const {
        log.logError(kTooLarge);
        log.logData("bufferLimit", std::to_string(m_limit).c_str());
        imap.appendErrorToSessionLog(kTooLarge);
        imap.handleSocketFailure();
        return false;
    }

    static constexpr const char* kTooLarge =
        "The IMAP server's response exceeds the buffer limit; the connection is closed.";

private:
    static constexpr uint64_t kPerLineCost = 128;
    uint64_t m_used = 0;
    uint64_t m_limit;
};

}  // namespace zr
