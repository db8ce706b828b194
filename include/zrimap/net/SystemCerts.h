// SystemCerts: an ordered set of X.509 certificates held as DER blobs.
//
// Socket2 fills one with the chain the server presented, leaf first. The
// accessors decode on demand, so holding certificates costs only their bytes.
// Indexes out of range make the accessors return false.
#pragma once

#include <vector>

namespace zr {

class DataBuffer;
class StringBuffer;

class SystemCerts {
public:
    int getNumCerts() const { return static_cast<int>(m_der.size()); }
    bool isEmpty() const { return m_der.empty(); }
    void clear() { m_der.clear(); }

    // Adds a copy; false when the bytes are not one DER certificate (or
    // memory runs out).
    bool addCertDer(const unsigned char* der, unsigned n);

    // Each appends to out.
    bool getCertDer(int i, DataBuffer& out) const;
    // One-line distinguished names, RFC 2253 style ("CN=host,O=Org").
    bool getSubjectText(int i, StringBuffer& out) const;
    bool getIssuerText(int i, StringBuffer& out) const;
    // "-----BEGIN CERTIFICATE-----" ... with its line ends.
    bool getPem(int i, StringBuffer& out) const;

private:
    std::vector<std::vector<unsigned char>> m_der;
};

}  // namespace zr
