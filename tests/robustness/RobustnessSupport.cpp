#include "RobustnessSupport.h"

#include <dirent.h>
#include <sys/resource.h>

namespace zr::test {

int openFdCount() {
    DIR* d = ::opendir("/proc/self/fd");
    if (!d) return -1;
    int n = 0;
    while (dirent* e = ::readdir(d))
        if (e->d_name[0] != '.') ++n;
    ::closedir(d);
    return n - 1;  // the directory stream's own descriptor
}

long peakRssKb() {
    rusage u{};
    ::getrusage(RUSAGE_SELF, &u);
    return u.ru_maxrss;
}

long msSince(Clock::time_point t) {
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count());
}

void mixedSummary(ImapMsgSummary& s) {
    const char* parts[][3] = {{"", "multipart", "mixed"}, {"1", "text", "plain"}, {"2", "application", "pdf"}};
    for (const auto& p : parts) {
        auto* part = new ImapMsgPart;
        part->m_partId.setString(p[0]);
        part->m_contentType.setString(p[1]);
        part->m_subType.setString(p[2]);
        s.appendPart(part);
    }
    s.m_numAttachments = 1;
    s.m_loaded = 1;
}

std::string lit(const std::string& bytes) { return "{" + std::to_string(bytes.size()) + "}\r\n" + bytes; }

BufferLimitGuard::BufferLimitGuard(std::uint64_t maxBytes) { BufferLimits::setMaxBytes(maxBytes); }
BufferLimitGuard::~BufferLimitGuard() { BufferLimits::setMaxBytes(0); }

FloodServer::FloodServer(const Config& config) {
    server_.sendWhole(config.greeting);
    for (const std::string& reply : config.replies) server_.readLine().sendWhole(reply);
    server_.flood(config.chunk, config.maxBytes);
    if (config.acceptSecond) server_.acceptNext().sendWhole("* OK again\r\n").expectClose();
    server_.start();
}

}  // namespace zr::test
