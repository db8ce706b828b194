#include "zrimap/net/SystemCerts.h"

#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <new>

#include "zrimap/base/DataBuffer.h"
#include "zrimap/base/StringBuffer.h"

namespace zr {

namespace {

X509* decode(const std::vector<unsigned char>& der) {
    const unsigned char* p = der.data();
    return d2i_X509(nullptr, &p, static_cast<long>(der.size()));
}

// Runs `write` against a memory BIO and appends what it produced.
template <typename Fn>
bool appendFromBio(StringBuffer& out, Fn write) {
    BIO* mem = BIO_new(BIO_s_mem());
    if (!mem) return false;
    bool ok = write(mem);
    if (ok) {
        char* text = nullptr;
        const long n = BIO_get_mem_data(mem, &text);
        ok = n >= 0 && out.appendN(text, static_cast<unsigned>(n));
    }
    BIO_free(mem);
    return ok;
}

bool appendName(const std::vector<unsigned char>& der, bool issuer, StringBuffer& out) {
    X509* cert = decode(der);
    if (!cert) return false;
    const X509_NAME* name = issuer ? X509_get_issuer_name(cert) : X509_get_subject_name(cert);
    const bool ok = appendFromBio(out, [name](BIO* mem) {
        return X509_NAME_print_ex(mem, name, 0, XN_FLAG_RFC2253) >= 0;
    });
    X509_free(cert);
    return ok;
}

}  // namespace

bool SystemCerts::addCertDer(const unsigned char* der, unsigned n) {
    if (!der || n == 0) return false;
    const unsigned char* p = der;
    X509* cert = d2i_X509(nullptr, &p, static_cast<long>(n));
    if (!cert) return false;
    X509_free(cert);
    // Trailing bytes would mean this was not exactly one certificate.
    if (p != der + n) return false;
    try {
        m_der.emplace_back(der, der + n);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

bool SystemCerts::getCertDer(int i, DataBuffer& out) const {
    if (i < 0 || i >= getNumCerts()) return false;
    const std::vector<unsigned char>& der = m_der[static_cast<size_t>(i)];
    return out.append(der.data(), static_cast<unsigned>(der.size()));
}

bool SystemCerts::getSubjectText(int i, StringBuffer& out) const {
    if (i < 0 || i >= getNumCerts()) return false;
    return appendName(m_der[static_cast<size_t>(i)], false, out);
}

bool SystemCerts::getIssuerText(int i, StringBuffer& out) const {
    if (i < 0 || i >= getNumCerts()) return false;
    return appendName(m_der[static_cast<size_t>(i)], true, out);
}

bool SystemCerts::getPem(int i, StringBuffer& out) const {
    if (i < 0 || i >= getNumCerts()) return false;
    X509* cert = decode(m_der[static_cast<size_t>(i)]);
    if (!cert) return false;
    const bool ok = appendFromBio(out, [cert](BIO* mem) { return PEM_write_bio_X509(mem, cert) == 1; });
    X509_free(cert);
    return ok;
}

}  // namespace zr
