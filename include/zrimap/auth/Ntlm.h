// ClsNtlm: the client side of NTLM authentication (MS-NLMP), as used by IMAP
// AUTHENTICATE NTLM. It makes the base64 text of the Type 1 (negotiate)
// message, reads the server's Type 2 (challenge) and answers it with the
// Type 3 (authenticate) message. It does not talk to the server; the engine
// frames and sends what it makes.
//
// Versions. put_NtlmVersion(1) gives NTLMv1: with extended session security
// (the "NTLM2 session response") when the server's Type 2 agrees to it, the
// plain DES-based LM and NT responses otherwise. Any other value gives
// NTLMv2. The default is _zrSettings::m_defaultNtlmVersion at creation.
//
// Type 1 flags: NEGOTIATE_UNICODE, NEGOTIATE_OEM, REQUEST_TARGET,
// NEGOTIATE_NTLM, NEGOTIATE_ALWAYS_SIGN, NEGOTIATE_EXTENDED_SESSIONSECURITY,
// NEGOTIATE_128 and NEGOTIATE_56 (0xA0088207). Extended session security is
// requested for NTLMv1 too, because it is the stronger of the two v1 forms
// and the server decides. Neither SIGN, SEAL, KEY_EXCH nor VERSION is asked
// for: IMAP uses NTLM for authentication only. The domain and workstation
// are put into the Type 1 message (OEM form, with OEM_DOMAIN_SUPPLIED and
// OEM_WORKSTATION_SUPPLIED) only when the caller set them.
//
// Type 3: its flags are those both sides asked for, with UNICODE or OEM
// chosen by the server's answer (Unicode when offered). Strings are UTF-16LE
// under UNICODE, and under OEM the UTF-8 bytes as they are. The hashes always
// work on UTF-16LE, whatever the string form of the messages.
//
// Names. A user name "DOMAIN\user" with no domain set is split in two. The
// workstation defaults to this host's name (up to the first dot, ASCII
// upper-cased). The user name is upper-cased for NTOWFv2 by the simple
// Unicode mapping of Latin, Greek, Cyrillic and Armenian letters.
//
// NTLMv2 details. The timestamp is the server's MsvAvTimestamp when its
// target info carries one, otherwise the current time. With that server
// timestamp the LM response is 24 zero bytes, and when this object also made
// the Type 1 message the Type 3 carries a MIC (with MsvAvFlags bit 0x2 set in
// the target info it returns), as MS-NLMP asks.
//
// One exchange. genType3 wipes its copy of the password once it has used it
// (successful or not), and forgets the Type 1 message: another exchange needs
// put_Password (and genType1) again. The destructor wipes the password too.
//
// Every operation returns false on failure, with the reason logged through
// log.logError; nothing throws.
#pragma once

#include <cstdint>

#include "zrimap/auth/ClsBase.h"
#include "zrimap/base/DataBuffer.h"
#include "zrimap/base/XString.h"

namespace zr {

class LogBase;
class StringBuffer;

class ClsNtlm : public ClsBase {
public:
    // The new object holds one reference (release with decRefCount()); null
    // when memory runs out.
    static ClsNtlm* createNewCls();

    void put_UserName(XString& v);
    void put_Password(XString& v);
    void put_Domain(XString& v);
    void put_Workstation(XString& v);
    // 1 selects NTLMv1; any other value selects NTLMv2.
    void put_NtlmVersion(int v);
    int get_NtlmVersion() const { return m_version; }

    // outBase64 is replaced by the base64 text of the Type 1 message.
    bool genType1(XString& outBase64, LogBase& log);
    // type2Base64 is the server's challenge (white space is ignored);
    // outBase64 is replaced by the base64 Type 3 message, or emptied on
    // failure.
    bool genType3(XString& type2Base64, XString& outBase64, LogBase& log);

    // --- test hooks: never use them in production code ---
    // Fixes the 8-byte client challenge instead of drawing it from
    // RAND_bytes, so that the responses become reproducible.
    void setClientChallengeForTesting(const unsigned char challenge[8]);
    // Fixes the NTLMv2 timestamp (a FILETIME: 100 ns units since 1601-01-01)
    // used in place of the current time. A server's MsvAvTimestamp still
    // takes precedence.
    void setTimestampForTesting(uint64_t filetime);

protected:
    ~ClsNtlm() override;

private:
    ClsNtlm();

    struct Challenge;
    bool parseType2(const DataBuffer& msg, Challenge& ch, LogBase& log);
    bool resolveNames(StringBuffer& user, StringBuffer& domain, StringBuffer& workstation, LogBase& log);
    bool makeType3(const Challenge& ch, const DataBuffer& type2, DataBuffer& out, LogBase& log);
    bool clientChallenge(unsigned char out[8], LogBase& log);
    uint32_t type1Flags() const;

    XString m_userName;
    XString m_password;
    XString m_domain;
    XString m_workstation;
    bool m_havePassword = false;
    int m_version = 2;

    // The Type 1 message as last sent: the MIC covers it.
    DataBuffer m_type1;

    bool m_fixedClientChallenge = false;
    unsigned char m_clientChallenge[8] = {0};
    bool m_fixedTimestamp = false;
    uint64_t m_timestamp = 0;
};

}  // namespace zr
