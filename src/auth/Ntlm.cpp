// NTLM client messages (MS-NLMP): Type 1 out, Type 2 in, Type 3 out.
#include "zrimap/auth/Ntlm.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include <openssl/crypto.h>
#include <openssl/rand.h>

#include "NtlmInternal.h"
#include "zrimap/auth/Settings.h"
#include "zrimap/base/ContentCoding.h"
#include "zrimap/base/LogBase.h"
#include "zrimap/base/StrFunctions.h"
#include "zrimap/base/StringBuffer.h"

namespace zr {

namespace {

constexpr uint32_t kNegotiateUnicode = 0x00000001;
constexpr uint32_t kNegotiateOem = 0x00000002;
constexpr uint32_t kRequestTarget = 0x00000004;
constexpr uint32_t kNegotiateNtlm = 0x00000200;
constexpr uint32_t kOemDomainSupplied = 0x00001000;
constexpr uint32_t kOemWorkstationSupplied = 0x00002000;
constexpr uint32_t kNegotiateAlwaysSign = 0x00008000;
constexpr uint32_t kExtendedSessionSecurity = 0x00080000;
constexpr uint32_t kNegotiateTargetInfo = 0x00800000;
constexpr uint32_t kNegotiate128 = 0x20000000;
constexpr uint32_t kNegotiate56 = 0x80000000;

constexpr uint16_t kAvEol = 0;
constexpr uint16_t kAvFlags = 6;
constexpr uint16_t kAvTimestamp = 7;
constexpr uint32_t kAvFlagMicPresent = 0x00000002;

const unsigned char kSignature[8] = {'N', 'T', 'L', 'M', 'S', 'S', 'P', 0};

// Type 2 messages are small: two 16-bit-sized payloads after a 56-byte
// header. Anything far beyond that is not a challenge worth decoding.
constexpr unsigned kMaxType2Bytes = 256 * 1024;

constexpr unsigned kType3HeaderPlain = 64;
constexpr unsigned kType3HeaderWithMic = 88;
constexpr unsigned kType3MicOffset = 72;

// 1970-01-01 as a FILETIME (100 ns units since 1601-01-01).
constexpr uint64_t kFiletimeUnixEpoch = 11644473600ull * 10000000ull;

uint64_t currentFiletime() {
    const auto sinceUnix = std::chrono::duration_cast<std::chrono::nanoseconds>(
        std::chrono::system_clock::now().time_since_epoch());
    return kFiletimeUnixEpoch + static_cast<uint64_t>(sinceUnix.count()) / 100;
}

// Wipes a fixed-size secret when the scope that holds it ends, on every path.
class WipeOnExit {
public:
    WipeOnExit(void* p, size_t n) : m_p(p), m_n(n) {}
    ~WipeOnExit() { OPENSSL_cleanse(m_p, m_n); }
    WipeOnExit(const WipeOnExit&) = delete;
    WipeOnExit& operator=(const WipeOnExit&) = delete;

private:
    void* m_p;
    size_t m_n;
};

// The same for a DataBuffer that holds secret material.
class SecureBuffer : public DataBuffer {
public:
    SecureBuffer() = default;
    ~SecureBuffer() { secureClear(); }
    SecureBuffer(const SecureBuffer&) = delete;
    SecureBuffer& operator=(const SecureBuffer&) = delete;
};

uint16_t get16(const unsigned char* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
uint32_t get32(const unsigned char* p) {
    return uint32_t(p[0]) | (uint32_t(p[1]) << 8) | (uint32_t(p[2]) << 16) | (uint32_t(p[3]) << 24);
}
uint64_t get64(const unsigned char* p) { return uint64_t(get32(p)) | (uint64_t(get32(p + 4)) << 32); }

bool put16(DataBuffer& b, uint16_t v) {
    const unsigned char x[2] = {static_cast<unsigned char>(v), static_cast<unsigned char>(v >> 8)};
    return b.append(x, 2);
}
bool put32(DataBuffer& b, uint32_t v) { return put16(b, uint16_t(v)) && put16(b, uint16_t(v >> 16)); }
bool put64(DataBuffer& b, uint64_t v) { return put32(b, uint32_t(v)) && put32(b, uint32_t(v >> 32)); }
bool putZeros(DataBuffer& b, unsigned n) {
    static const unsigned char zeros[16] = {0};
    for (; n > 16; n -= 16)
        if (!b.append(zeros, 16)) return false;
    return b.append(zeros, n);
}

// A security buffer (length, allocated length, offset) announcing `len`
// payload bytes at `offset`.
bool putSecBuf(DataBuffer& b, unsigned len, unsigned offset) {
    return put16(b, uint16_t(len)) && put16(b, uint16_t(len)) && put32(b, offset);
}

std::string hex32(uint32_t v) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", v);
    return text;
}

// Reads the UTF-8 sequence at s[i]; false when it is not well-formed.
bool nextCodePoint(const unsigned char* s, unsigned n, unsigned& i, unsigned& cp) {
    const unsigned b0 = s[i];
    unsigned need;
    unsigned lo = 0x80, hi = 0xBF;  // allowed range of the second byte
    if (b0 < 0x80) {
        cp = b0;
        ++i;
        return true;
    } else if (b0 >= 0xC2 && b0 <= 0xDF) {
        need = 1;
        cp = b0 & 0x1F;
    } else if (b0 >= 0xE0 && b0 <= 0xEF) {
        need = 2;
        cp = b0 & 0x0F;
        if (b0 == 0xE0) lo = 0xA0;  // overlong
        if (b0 == 0xED) hi = 0x9F;  // UTF-16 surrogates
    } else if (b0 >= 0xF0 && b0 <= 0xF4) {
        need = 3;
        cp = b0 & 0x07;
        if (b0 == 0xF0) lo = 0x90;  // overlong
        if (b0 == 0xF4) hi = 0x8F;  // past U+10FFFF
    } else {
        return false;
    }
    if (n - i <= need) return false;
    for (unsigned k = 1; k <= need; ++k) {
        const unsigned b = s[i + k];
        if (k == 1 ? (b < lo || b > hi) : (b < 0x80 || b > 0xBF)) return false;
        cp = (cp << 6) | (b & 0x3F);
    }
    i += need + 1;
    return true;
}

// The 8-bit form of a string in the messages when the server does not take
// Unicode: the bytes as the caller gave them.
bool appendOem(const StringBuffer& s, DataBuffer& out) { return out.append(s.getString(), s.getSize()); }

}  // namespace

// ------------------------------------------------------------- text ----

namespace ntlm {

unsigned upperCodePoint(unsigned cp) {
    if (cp < 0x80) return (cp >= 'a' && cp <= 'z') ? cp - 0x20 : cp;
    if (cp >= 0xE0 && cp <= 0xFE && cp != 0xF7) return cp - 0x20;
    if (cp == 0xFF) return 0x178;
    if (cp >= 0x100 && cp <= 0x17F) {
        // Latin Extended-A comes in upper/lower pairs, which change parity
        // at 0x139 and 0x179.
        if ((cp <= 0x137 && cp != 0x131) || (cp >= 0x14A && cp <= 0x177)) return (cp & 1) ? cp - 1 : cp;
        if ((cp >= 0x139 && cp <= 0x148) || (cp >= 0x179 && cp <= 0x17E)) return (cp & 1) ? cp : cp - 1;
        return cp;
    }
    if (cp >= 0x3B1 && cp <= 0x3CB) return cp == 0x3C2 ? 0x3A3 : cp - 0x20;
    if (cp == 0x3AC) return 0x386;
    if (cp >= 0x3AD && cp <= 0x3AF) return cp - 0x25;
    if (cp == 0x3CC) return 0x38C;
    if (cp == 0x3CD || cp == 0x3CE) return cp - 0x3F;
    if (cp >= 0x430 && cp <= 0x44F) return cp - 0x20;
    if (cp >= 0x450 && cp <= 0x45F) return cp - 0x50;
    if ((cp >= 0x460 && cp <= 0x481) || (cp >= 0x48A && cp <= 0x4BF) || (cp >= 0x4D0 && cp <= 0x52F))
        return (cp & 1) ? cp - 1 : cp;
    if (cp >= 0x4C1 && cp <= 0x4CE) return (cp & 1) ? cp : cp - 1;
    if (cp == 0x4CF) return 0x4C0;
    if (cp >= 0x561 && cp <= 0x586) return cp - 0x30;
    if ((cp >= 0x1E00 && cp <= 0x1E95) || (cp >= 0x1EA0 && cp <= 0x1EFF)) return (cp & 1) ? cp - 1 : cp;
    if (cp >= 0xFF41 && cp <= 0xFF5A) return cp - 0x20;
    return cp;
}

bool utf8ToUtf16le(const char* text, unsigned n, bool upper, DataBuffer& out) {
    const unsigned char* s = reinterpret_cast<const unsigned char*>(text);
    unsigned cp = 0;
    // Validate first, so that a refused text leaves no partial (possibly
    // secret) output behind; then reserve once, so that no reallocation
    // leaves copies of it in freed memory.
    for (unsigned i = 0; i < n;)
        if (!nextCodePoint(s, n, i, cp)) return false;
    if (!out.ensureBuffer(out.getSize() + 2 * n)) return false;
    for (unsigned i = 0; i < n;) {
        nextCodePoint(s, n, i, cp);
        if (upper) cp = upperCodePoint(cp);
        bool ok;
        if (cp < 0x10000) {
            ok = put16(out, uint16_t(cp));
        } else {
            cp -= 0x10000;
            ok = put16(out, uint16_t(0xD800 | (cp >> 10))) && put16(out, uint16_t(0xDC00 | (cp & 0x3FF)));
        }
        if (!ok) return false;
    }
    return true;
}

}  // namespace ntlm

// ---------------------------------------------------------- ClsNtlm ----

struct ClsNtlm::Challenge {
    uint32_t flags = 0;
    unsigned char serverChallenge[8] = {0};
    // The AV pairs before MsvAvEol, as received, and the same without any
    // MsvAvFlags pair (the form a MIC needs, with the flag added back).
    DataBuffer pairs;
    DataBuffer pairsWithoutFlags;
    uint32_t avFlags = 0;
    bool hasTimestamp = false;
    uint64_t timestamp = 0;
};

ClsNtlm* ClsNtlm::createNewCls() {
    ClsNtlm* obj = new (std::nothrow) ClsNtlm();
    if (obj) obj->incRefCount();
    return obj;
}

ClsNtlm::ClsNtlm() : m_version(_zrSettings::m_defaultNtlmVersion == 1 ? 1 : 2) {}

ClsNtlm::~ClsNtlm() {
    m_password.secureClear();
    OPENSSL_cleanse(m_clientChallenge, sizeof m_clientChallenge);
}

void ClsNtlm::put_UserName(XString& v) { m_userName.setFromUtf8(v.getUtf8()); }
void ClsNtlm::put_Domain(XString& v) { m_domain.setFromUtf8(v.getUtf8()); }
void ClsNtlm::put_Workstation(XString& v) { m_workstation.setFromUtf8(v.getUtf8()); }
void ClsNtlm::put_NtlmVersion(int v) { m_version = (v == 1) ? 1 : 2; }

void ClsNtlm::put_Password(XString& v) {
    // Wiped first: setting a longer text could move it and leave the old one.
    m_password.secureClear();
    m_havePassword = m_password.setFromUtf8(v.getUtf8());
}

void ClsNtlm::setClientChallengeForTesting(const unsigned char challenge[8]) {
    std::memcpy(m_clientChallenge, challenge, 8);
    m_fixedClientChallenge = true;
}

void ClsNtlm::setTimestampForTesting(uint64_t filetime) {
    m_timestamp = filetime;
    m_fixedTimestamp = true;
}

uint32_t ClsNtlm::type1Flags() const {
    uint32_t flags = kNegotiateUnicode | kNegotiateOem | kRequestTarget | kNegotiateNtlm | kNegotiateAlwaysSign |
                     kExtendedSessionSecurity | kNegotiate128 | kNegotiate56;
    if (!m_domain.isEmpty()) flags |= kOemDomainSupplied;
    if (!m_workstation.isEmpty()) flags |= kOemWorkstationSupplied;
    return flags;
}

bool ClsNtlm::genType1(XString& outBase64, LogBase& log) {
    LogContextExitor ctx(log, "ntlmGenType1");
    outBase64.clear();
    m_type1.clear();

    const uint32_t flags = type1Flags();
    const StringBuffer& domain = m_domain.getUtf8Sb();
    const StringBuffer& workstation = m_workstation.getUtf8Sb();
    if (domain.getSize() > 0xFFFF || workstation.getSize() > 0xFFFF) {
        log.logError("NTLM domain or workstation name is too long for a Type 1 message");
        return false;
    }

    const unsigned payloadStart = 32;
    DataBuffer msg;
    const bool ok = msg.append(kSignature, 8) && put32(msg, 1) && put32(msg, flags) &&
                    putSecBuf(msg, domain.getSize(), payloadStart) &&
                    putSecBuf(msg, workstation.getSize(), payloadStart + domain.getSize()) &&
                    appendOem(domain, msg) && appendOem(workstation, msg);
    StringBuffer b64;
    if (!ok || !msg.encodeDB("base64", b64) || !outBase64.setFromSbUtf8(b64)) {
        log.logError("Out of memory building the NTLM Type 1 message");
        outBase64.clear();
        return false;
    }
    if (log.m_verboseLogging) {
        log.LogDataLong("ntlmVersion", m_version);
        log.logData("type1Flags", hex32(flags).c_str());
    }
    m_type1 = std::move(msg);
    return true;
}

bool ClsNtlm::parseType2(const DataBuffer& msg, Challenge& ch, LogBase& log) {
    const unsigned char* p = msg.getData2();
    const unsigned size = msg.getSize();

    if (size < 32) {
        log.logError(("NTLM Type 2 message too short (" + std::to_string(size) + " bytes)").c_str());
        return false;
    }
    if (std::memcmp(p, kSignature, 8) != 0) {
        log.logError("NTLM Type 2 message does not begin with the NTLMSSP signature");
        return false;
    }
    const uint32_t type = get32(p + 8);
    if (type != 2) {
        log.logError(("NTLM message from the server is of type " + std::to_string(type) + ", not 2").c_str());
        return false;
    }

    // A payload field is (length, allocated length, offset). Sums are done
    // in 64 bits so that no offset near 4 GiB can wrap past the check.
    auto field = [&](unsigned at, const char* what, unsigned& off, unsigned& len) {
        len = get16(p + at);
        off = get32(p + at + 4);
        if (len != 0 && uint64_t(off) + len > size) {
            log.logError(("NTLM Type 2 " + std::string(what) + " lies outside the message (offset " +
                          std::to_string(off) + ", length " + std::to_string(len) + ", message " +
                          std::to_string(size) + " bytes)")
                             .c_str());
            return false;
        }
        return true;
    };

    unsigned nameOff = 0, nameLen = 0;
    if (!field(12, "target name", nameOff, nameLen)) return false;
    ch.flags = get32(p + 20);
    std::memcpy(ch.serverChallenge, p + 24, 8);

    // Old servers end the message after the challenge (or the reserved
    // field), so the target info fields exist only when the flag says so.
    unsigned infoOff = 0, infoLen = 0;
    if (ch.flags & kNegotiateTargetInfo) {
        if (size < 48) {
            log.logError(("NTLM Type 2 message announces target info but is too short to hold its field (" +
                          std::to_string(size) + " bytes)")
                             .c_str());
            return false;
        }
        if (!field(40, "target info", infoOff, infoLen)) return false;
    }

    const unsigned char* info = infoLen ? p + infoOff : p;
    unsigned pos = 0;
    while (pos < infoLen) {
        if (infoLen - pos < 4) {
            log.logError(("NTLM Type 2 target info is malformed: it ends inside an AV pair header at offset " +
                          std::to_string(pos))
                             .c_str());
            return false;
        }
        const uint16_t id = get16(info + pos);
        const unsigned len = get16(info + pos + 2);
        if (id == kAvEol) break;
        if (uint64_t(pos) + 4 + len > infoLen) {
            log.logError(("NTLM Type 2 target info is malformed: AV pair " + std::to_string(id) + " at offset " +
                          std::to_string(pos) + " (length " + std::to_string(len) +
                          ") runs past its end (" + std::to_string(infoLen) + " bytes)")
                             .c_str());
            return false;
        }
        const unsigned char* value = info + pos + 4;
        if ((id == kAvTimestamp && len != 8) || (id == kAvFlags && len != 4)) {
            log.logError(("NTLM Type 2 target info is malformed: AV pair " + std::to_string(id) +
                          " has length " + std::to_string(len))
                             .c_str());
            return false;
        }
        if (id == kAvTimestamp) {
            ch.hasTimestamp = true;
            ch.timestamp = get64(value);
        }
        bool ok = ch.pairs.append(info + pos, 4 + len);
        if (id == kAvFlags)
            ch.avFlags |= get32(value);
        else
            ok = ok && ch.pairsWithoutFlags.append(info + pos, 4 + len);
        if (!ok) {
            log.logError("Out of memory reading the NTLM Type 2 target info");
            return false;
        }
        pos += 4 + len;
    }

    if (log.m_verboseLogging) {
        log.logData("type2Flags", hex32(ch.flags).c_str());
        log.LogDataLong("targetInfoBytes", static_cast<long>(infoLen));
        log.LogDataLong("serverTimestamp", ch.hasTimestamp ? 1 : 0);
    }
    return true;
}

bool ClsNtlm::resolveNames(StringBuffer& user, StringBuffer& domain, StringBuffer& workstation, LogBase& log) {
    user.setString(m_userName.getUtf8Sb());
    domain.setString(m_domain.getUtf8Sb());
    const int backslash = user.indexOf("\\");
    if (domain.isEmpty() && backslash >= 0) {
        domain.setString(user);
        domain.shorten(domain.getSize() - static_cast<unsigned>(backslash));
        user.removeChunk(0, static_cast<unsigned>(backslash) + 1);
    }
    if (user.isEmpty()) {
        log.logError("NTLM user name is empty");
        return false;
    }
    workstation.setString(m_workstation.getUtf8Sb());
    if (workstation.isEmpty() && Psdk::getComputerName(workstation)) {
        const int dot = workstation.indexOf(".");
        if (dot > 0) workstation.shorten(workstation.getSize() - static_cast<unsigned>(dot));
        workstation.toUpperCase();
    }
    return true;
}

bool ClsNtlm::clientChallenge(unsigned char out[8], LogBase& log) {
    if (m_fixedClientChallenge) {
        std::memcpy(out, m_clientChallenge, 8);
        return true;
    }
    if (RAND_bytes(out, 8) != 1) {
        log.logError("OpenSSL could not produce random bytes for the NTLM client challenge");
        return false;
    }
    return true;
}

bool ClsNtlm::makeType3(const Challenge& ch, const DataBuffer& type2, DataBuffer& out, LogBase& log) {
    StringBuffer user, domain, workstation;
    if (!resolveNames(user, domain, workstation, log)) return false;
    if (!m_havePassword) {
        log.logError("NTLM password has not been set (it is wiped after each Type 3 message)");
        return false;
    }
    const bool v2 = m_version != 1;
    if (!v2 && !ntlm::desAvailable()) {
        log.logError("NTLMv1 needs DES from OpenSSL's legacy provider, which could not be loaded");
        return false;
    }

    const uint32_t requested = type1Flags() & ~(kNegotiateUnicode | kNegotiateOem | kOemDomainSupplied |
                                                 kOemWorkstationSupplied);
    const bool unicode = (ch.flags & kNegotiateUnicode) != 0;
    const uint32_t flags =
        (requested & ch.flags) | kNegotiateNtlm | (unicode ? kNegotiateUnicode : kNegotiateOem);
    const bool ess = (flags & kExtendedSessionSecurity) != 0;

    unsigned char cc[8];
    WipeOnExit wipeCc(cc, sizeof cc);
    if (!clientChallenge(cc, log)) return false;

    // NTOWFv1: MD4 of the UTF-16LE password, whatever the message strings use.
    unsigned char ntHash[16];
    WipeOnExit wipeNt(ntHash, sizeof ntHash);
    {
        SecureBuffer pw16;
        if (!ntlm::utf8ToUtf16le(m_password.getUtf8(), m_password.getSizeUtf8(), false, pw16)) {
            log.logError("NTLM password is not valid UTF-8");
            return false;
        }
        ntlm::md4(pw16.getData2(), pw16.getSize(), ntHash);
    }

    DataBuffer lmResp, ntResp;
    unsigned char sessionBaseKey[16];
    WipeOnExit wipeSbk(sessionBaseKey, sizeof sessionBaseKey);
    bool withMic = false;
    bool cryptoOk = true;

    if (v2) {
        unsigned char responseKey[16];
        WipeOnExit wipeRk(responseKey, sizeof responseKey);
        SecureBuffer ident;
        if (!ntlm::utf8ToUtf16le(user.getString(), user.getSize(), true, ident)) {
            log.logError("NTLM user name is not valid UTF-8");
            return false;
        }
        if (!ntlm::utf8ToUtf16le(domain.getString(), domain.getSize(), false, ident)) {
            log.logError("NTLM domain is not valid UTF-8");
            return false;
        }
        cryptoOk = ntlm::hmacMd5(ntHash, 16, ident.getData2(), ident.getSize(), responseKey);

        // A MIC covers the Type 1 message, so only a Type 1 made here allows one.
        withMic = ch.hasTimestamp && m_type1.getSize() > 0;
        const uint64_t time = ch.hasTimestamp ? ch.timestamp : m_fixedTimestamp ? m_timestamp : currentFiletime();

        // The client challenge structure ("temp"), preceded by the server
        // challenge as NTProofStr's input.
        DataBuffer temp;
        bool ok = temp.append(ch.serverChallenge, 8) && temp.appendChar(1) && temp.appendChar(1) &&
                  putZeros(temp, 6) && put64(temp, time) && temp.append(cc, 8) && putZeros(temp, 4);
        if (withMic)
            ok = ok && temp.append(ch.pairsWithoutFlags) && put16(temp, kAvFlags) && put16(temp, 4) &&
                 put32(temp, ch.avFlags | kAvFlagMicPresent);
        else
            ok = ok && temp.append(ch.pairs);
        ok = ok && putZeros(temp, 4 + 4);  // MsvAvEol, then the closing reserved field
        if (!ok) {
            log.logError("Out of memory building the NTLMv2 response");
            return false;
        }

        unsigned char proof[16];
        cryptoOk = cryptoOk && ntlm::hmacMd5(responseKey, 16, temp.getData2(), temp.getSize(), proof) &&
                   ntlm::hmacMd5(responseKey, 16, proof, 16, sessionBaseKey);
        ok = ntResp.append(proof, 16) && ntResp.append(temp.getData2() + 8, temp.getSize() - 8);

        if (ch.hasTimestamp) {
            // The server checks the timestamped NT response; MS-NLMP has the
            // LM response zeroed rather than made.
            ok = ok && putZeros(lmResp, 24);
        } else {
            unsigned char lmIn[16], lmProof[16];
            std::memcpy(lmIn, ch.serverChallenge, 8);
            std::memcpy(lmIn + 8, cc, 8);
            cryptoOk = cryptoOk && ntlm::hmacMd5(responseKey, 16, lmIn, 16, lmProof);
            ok = ok && lmResp.append(lmProof, 16) && lmResp.append(cc, 8);
        }
        if (!ok) {
            log.logError("Out of memory building the NTLMv2 response");
            return false;
        }
    } else if (ess) {
        unsigned char both[16], digest[16], resp[24];
        std::memcpy(both, ch.serverChallenge, 8);
        std::memcpy(both + 8, cc, 8);
        cryptoOk = ntlm::md5(both, 16, digest) && ntlm::desl(ntHash, digest, resp);
        if (!lmResp.append(cc, 8) || !putZeros(lmResp, 16) || !ntResp.append(resp, 24)) {
            log.logError("Out of memory building the NTLMv1 response");
            return false;
        }
    } else {
        unsigned char resp[24];
        cryptoOk = ntlm::desl(ntHash, ch.serverChallenge, resp);
        bool ok = ntResp.append(resp, 24);
        // LMOWFv1 works on at most 14 upper-cased OEM characters. A longer
        // password has no LM hash; the NT response then stands in for it.
        const StringBuffer& pw = m_password.getUtf8Sb();
        if (pw.getSize() > 14) {
            ok = ok && lmResp.append(resp, 24);
        } else {
            unsigned char oem[14] = {0}, lmHash[16], key8[8], lmResp24[24];
            WipeOnExit wipeOem(oem, sizeof oem), wipeLm(lmHash, sizeof lmHash), wipeKey(key8, sizeof key8);
            std::memcpy(oem, pw.getString(), pw.getSize());
            for (unsigned char& c : oem)
                if (c >= 'a' && c <= 'z') c = static_cast<unsigned char>(c - 0x20);
            static const unsigned char magic[8] = {'K', 'G', 'S', '!', '@', '#', '$', '%'};
            for (int half = 0; half < 2 && cryptoOk; ++half) {
                ntlm::desExpandKey(oem + 7 * half, key8);
                cryptoOk = ntlm::desEncryptBlock(key8, magic, lmHash + 8 * half);
            }
            cryptoOk = cryptoOk && ntlm::desl(lmHash, ch.serverChallenge, lmResp24);
            ok = ok && lmResp.append(lmResp24, 24);
        }
        if (!ok) {
            log.logError("Out of memory building the NTLMv1 response");
            return false;
        }
    }
    if (!cryptoOk) {
        log.logError("OpenSSL failed while computing the NTLM response");
        return false;
    }

    // The strings of the message.
    DataBuffer domainBytes, userBytes, wsBytes;
    bool ok;
    if (unicode) {
        ok = ntlm::utf8ToUtf16le(domain.getString(), domain.getSize(), false, domainBytes) &&
             ntlm::utf8ToUtf16le(user.getString(), user.getSize(), false, userBytes) &&
             ntlm::utf8ToUtf16le(workstation.getString(), workstation.getSize(), false, wsBytes);
        if (!ok) {
            log.logError("NTLM user, domain or workstation name is not valid UTF-8");
            return false;
        }
    } else {
        ok = appendOem(domain, domainBytes) && appendOem(user, userBytes) && appendOem(workstation, wsBytes);
    }

    const DataBuffer* parts[5] = {&lmResp, &ntResp, &domainBytes, &userBytes, &wsBytes};
    static const char* const partNames[5] = {"LM response", "NT response", "domain", "user name", "workstation"};
    for (int i = 0; i < 5; ++i) {
        if (parts[i]->getSize() > 0xFFFF) {
            log.logError(("NTLM Type 3 " + std::string(partNames[i]) + " is too long (" +
                          std::to_string(parts[i]->getSize()) + " bytes)")
                             .c_str());
            return false;
        }
    }

    const unsigned header = withMic ? kType3HeaderWithMic : kType3HeaderPlain;
    unsigned offset = header;
    ok = ok && out.append(kSignature, 8) && put32(out, 3);
    for (const DataBuffer* part : parts) {
        ok = ok && putSecBuf(out, part->getSize(), offset);
        offset += part->getSize();
    }
    ok = ok && putSecBuf(out, 0, offset);  // no encrypted session key: KEY_EXCH is never negotiated
    ok = ok && put32(out, flags);
    if (withMic) ok = ok && putZeros(out, 8 + 16);  // VERSION (not negotiated) and the MIC, filled below
    for (const DataBuffer* part : parts) ok = ok && out.append(*part);
    if (!ok) {
        log.logError("Out of memory building the NTLM Type 3 message");
        return false;
    }

    if (withMic) {
        DataBuffer all;
        unsigned char mic[16];
        if (!all.append(m_type1) || !all.append(type2) || !all.append(out) ||
            !ntlm::hmacMd5(sessionBaseKey, 16, all.getData2(), all.getSize(), mic)) {
            log.logError("Failed to compute the NTLM message integrity code");
            return false;
        }
        std::memcpy(const_cast<unsigned char*>(out.getData2()) + kType3MicOffset, mic, 16);
    }

    if (log.m_verboseLogging) {
        log.logData("ntlmResponse", v2 ? "NTLMv2" : ess ? "NTLMv1 with extended session security" : "NTLMv1");
        log.logData("type3Flags", hex32(flags).c_str());
        log.LogDataLong("mic", withMic ? 1 : 0);
        log.LogDataLong("unicode", unicode ? 1 : 0);
    }
    return true;
}

bool ClsNtlm::genType3(XString& type2Base64, XString& outBase64, LogBase& log) {
    LogContextExitor ctx(log, "ntlmGenType3");
    outBase64.clear();

    const bool ok = [&]() {
        const StringBuffer& text = type2Base64.getUtf8Sb();
        if (text.getSize() > kMaxType2Bytes / 3 * 4 + 64) {
            log.logError(("NTLM Type 2 message too large (" + std::to_string(text.getSize()) +
                          " base64 characters)")
                             .c_str());
            return false;
        }
        DataBuffer type2;
        if (!ContentCoding::decodeBase64ToDb(text.getString(), text.getSize(), type2)) {
            log.logError("NTLM Type 2 message is not valid base64");
            return false;
        }
        if (type2.getSize() == 0) {
            log.logError("NTLM Type 2 message is empty");
            return false;
        }
        Challenge ch;
        if (!parseType2(type2, ch, log)) return false;

        DataBuffer type3;
        StringBuffer b64;
        if (!makeType3(ch, type2, type3, log)) return false;
        if (!type3.encodeDB("base64", b64) || !outBase64.setFromSbUtf8(b64)) {
            log.logError("Out of memory encoding the NTLM Type 3 message");
            outBase64.clear();
            return false;
        }
        return true;
    }();

    // One password serves one Type 3 message, and one Type 1 one exchange:
    // a MIC over a Type 1 from an earlier exchange would be wrong.
    m_password.secureClear();
    m_havePassword = false;
    m_type1.clear();
    return ok;
}

}  // namespace zr
