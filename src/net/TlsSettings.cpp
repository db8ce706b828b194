#include "zrimap/net/TlsSettings.h"

#include <cctype>
#include <cstring>

namespace zr {

_clsTls::_clsTls() { m_sslProtocol.append("default"); }

namespace {

const char* skipBlanks(const char* p) {
    while (*p == ' ' || *p == '\t') ++p;
    return p;
}

bool startsWithNoCase(const char* p, const char* word) {
    for (; *word; ++p, ++word)
        if (std::tolower(static_cast<unsigned char>(*p)) != *word) return false;
    return true;
}

// Reads "TLS 1.2", "TLSv1.3 or higher" and the like. 0 means "default".
bool parseProtocolText(const char* text, int& version) {
    const char* p = skipBlanks(text);
    version = 0;
    if (*p == 0) return true;
    if (startsWithNoCase(p, "default")) return *skipBlanks(p + 7) == 0;
    if (!startsWithNoCase(p, "tls")) return false;
    p += 3;
    if (*p == 'v' || *p == 'V') ++p;
    p = skipBlanks(p);
    if (p[0] != '1' || p[1] != '.' || p[2] < '0' || p[2] > '3') return false;
    version = 10 + (p[2] - '0');
    p = skipBlanks(p + 3);
    if (*p == '+') p = skipBlanks(p + 1);
    else if (startsWithNoCase(p, "or higher")) p = skipBlanks(p + 9);
    return *p == 0;
}

}  // namespace

bool _clsTls::getEffectiveMinVersion(TlsVersion& out) const {
    int named = 0;
    if (!parseProtocolText(m_sslProtocol.getString(), named)) return false;
    const int base = static_cast<int>(m_minTlsVersion);
    out = static_cast<TlsVersion>(named > base ? named : base);
    return true;
}

}  // namespace zr
