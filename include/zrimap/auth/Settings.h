// Process-wide library defaults read by the engine.
#pragma once

#include "zrimap/base/XString.h"

namespace zr {

class _zrSettings {
public:
    // NTLM version used by the next NTLM login: 1 or 2.
    static int m_defaultNtlmVersion;
    // Bulk-send behaviour applied to the transport before an APPEND: true
    // sends large uploads in big writes.
    static bool m_defaultBulkSendBehavior;
    // Certified-mail providers confirm an APPEND only once a command follows
    // the message: when the connected host name contains this text, APPEND
    // sends a NOOP behind the message and waits for its completion too.
    // Empty (the default) turns the behaviour off. The text must outlive
    // every APPEND (a string literal, typically).
    static const char* m_certifiedMailProviderDomain;
};

// The type in which every login operation receives the password (and
// XOAUTH2 its token). Login operations wipe it (secureClear) as soon as they
// have copied it, so it is empty afterwards; its destructor wipes it too.
class SecurePassword : public XString {
public:
    SecurePassword() = default;
    explicit SecurePassword(const char* utf8) : XString(utf8) {}
    ~SecurePassword() override { secureClear(); }
    SecurePassword(const SecurePassword&) = default;
    SecurePassword& operator=(const SecurePassword&) = default;
};

}  // namespace zr
