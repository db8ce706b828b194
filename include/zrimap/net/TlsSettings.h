// _clsTls: the connection settings a Socket2 connect and a STARTTLS upgrade
// take from the engine. Plain public members; the defaults are the safe
// everyday choice.
#pragma once

#include "zrimap/base/StringBuffer.h"

namespace zr {

enum class TlsVersion { Tls1_0 = 10, Tls1_1 = 11, Tls1_2 = 12, Tls1_3 = 13 };

class _clsTls {
public:
    _clsTls();

    // Socket buffer sizes applied before the TCP connect (so that the window
    // scale can take the receive size into account); 0 keeps the system's.
    int m_soSndBuf = 0;
    int m_soRcvBuf = 0;

    // The protocol the application asked for, as text. The engine logs it;
    // the transport also reads it as a minimum version:
    //   "default" or ""                 -> no extra constraint
    //   "TLS 1.0" .. "TLS 1.3"          -> at least that version
    //   (also "TLSv1.2", "tls1.2", with an optional "or higher" after it)
    // Anything else makes the handshake fail with an error naming the text,
    // rather than silently connecting with something the user did not ask
    // for.
    StringBuffer m_sslProtocol;

    // The lowest version offered. The effective minimum is the higher of
    // this and the version named by m_sslProtocol. Versions below 1.2 also
    // need OpenSSL's security level to allow them.
    TlsVersion m_minTlsVersion = TlsVersion::Tls1_2;

    // PEM file of trusted certificates. Empty: the system's store. When set,
    // it replaces the system store instead of adding to it, so a private CA
    // is the only thing trusted for that connection.
    StringBuffer m_caFile;

    // Off (default): the server certificate is checked and the result
    // recorded (Socket2::getRemoteServerCertVerified), but the connection
    // goes ahead either way. On: a chain that does not verify, or does not
    // match the host, fails the handshake.
    bool m_requireVerifiedServer = false;

    // The version that applies after combining the two settings above.
    // False when m_sslProtocol is not understood (out untouched).
    bool getEffectiveMinVersion(TlsVersion& out) const;

    // SSH tunnels: the fingerprint the SSH server's host key must have, as
    // ssh-keygen -l prints it ("SHA256:" and unpadded base64; the prefix may
    // be left out and padding is ignored). Empty: any host key is accepted
    // and only recorded (Socket2::getSshHostKeyFingerprint). When set, a
    // server with another key is refused before any authentication.
    StringBuffer m_sshHostKeyFingerprint;
};

}  // namespace zr
