#include "BenchSupport.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zrbench {

namespace {

const char kB64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// xorshift64*: fast and reproducible; the content only has to look random
// enough that nothing along the way can shortcut it.
struct Rng {
    uint64_t s;
    explicit Rng(uint64_t seed) : s(seed * 0x9E3779B97F4A7C15ull + 1) {}
    uint64_t next() {
        s ^= s >> 12;
        s ^= s << 25;
        s ^= s >> 27;
        return s * 0x2545F4914F6CDD1Dull;
    }
};

const char* kWords[] = {"alpha", "budget", "meeting", "report", "quarter", "update", "review", "draft",
                        "status", "plan",  "notes",   "team",   "launch",  "weekly", "client", "invoice"};

}  // namespace

std::string makeBigMessage(size_t totalBytes, unsigned seed) {
    std::string head =
        "From: Bench Sender <sender@example.com>\r\n"
        "To: Bench Reader <reader@example.com>\r\n"
        "Subject: large message " + std::to_string(totalBytes) + " bytes\r\n"
        "Date: Mon, 3 Jun 2024 10:00:00 +0000\r\n"
        "Message-ID: <big-" + std::to_string(totalBytes) + "-" + std::to_string(seed) + "@example.com>\r\n"
        "MIME-Version: 1.0\r\n"
        "Content-Type: multipart/mixed; boundary=\"=_bench_boundary\"\r\n"
        "\r\n"
        "--=_bench_boundary\r\n"
        "Content-Type: text/plain; charset=us-ascii\r\n"
        "\r\n"
        "The attachment holds pseudo-random data.\r\n"
        "\r\n"
        "--=_bench_boundary\r\n"
        "Content-Type: application/octet-stream; name=\"data.bin\"\r\n"
        "Content-Transfer-Encoding: base64\r\n"
        "Content-Disposition: attachment; filename=\"data.bin\"\r\n"
        "\r\n";
    const std::string tail = "--=_bench_boundary--\r\n";
    std::string out;
    if (totalBytes < head.size() + tail.size() + 8) totalBytes = head.size() + tail.size() + 8;
    out.reserve(totalBytes);
    out += head;
    Rng rng(seed);
    size_t body = totalBytes - head.size() - tail.size();
    while (body > 0) {
        // Full lines of 76 characters; the last two share what is left so
        // that the total comes out exact and no line is empty.
        size_t chars;
        if (body > 156)
            chars = 76;
        else if (body > 78)
            chars = body / 2 - 2;
        else
            chars = body - 2;
        for (size_t i = 0; i < chars; i += 8) {
            uint64_t r = rng.next();
            for (size_t k = 0; k < 8 && i + k < chars; ++k, r >>= 6) out.push_back(kB64[r & 63]);
        }
        out += "\r\n";
        body -= chars + 2;
    }
    out += tail;
    return out;
}

std::string makeSmallMessage(unsigned index) {
    Rng rng(index + 7);
    const unsigned lines = 20 + static_cast<unsigned>(rng.next() % 40);  // ~1.5 to 4 KB in all
    std::string m;
    m.reserve(4096);
    m += "From: Sender " + std::to_string(index % 37) + " <sender" + std::to_string(index % 37) +
         "@example.com>\r\n";
    m += "To: Bench Reader <reader@example.com>\r\n";
    m += "Subject: " + std::string(kWords[index % 16]) + " " + kWords[(index / 16) % 16] + " #" +
         std::to_string(index) + "\r\n";
    m += "Date: Mon, 3 Jun 2024 10:" + std::to_string(10 + index % 50) + ":00 +0000\r\n";
    m += "Message-ID: <small-" + std::to_string(index) + "@example.com>\r\n";
    m += "MIME-Version: 1.0\r\n";
    m += "Content-Type: text/plain; charset=us-ascii\r\n";
    m += "\r\n";
    for (unsigned l = 0; l < lines; ++l) {
        const unsigned words = 6 + static_cast<unsigned>(rng.next() % 8);
        for (unsigned w = 0; w < words; ++w) {
            if (w) m += ' ';
            m += kWords[rng.next() % 16];
        }
        m += ".\r\n";
    }
    return m;
}

int listenLoopback(int& port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    int one = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a;
    std::memset(&a, 0, sizeof a);
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = 0;
    socklen_t len = sizeof a;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || ::listen(fd, 16) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
        ::close(fd);
        return -1;
    }
    port = ntohs(a.sin_port);
    return fd;
}

int connectLoopback(int port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    sockaddr_in a;
    std::memset(&a, 0, sizeof a);
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<uint16_t>(port));
    if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        ::close(fd);
        return -1;
    }
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd;
}

bool sendAllFd(int fd, const void* data, size_t n) {
    const char* p = static_cast<const char*>(data);
    while (n > 0) {
        const ssize_t r = ::send(fd, p, n, MSG_NOSIGNAL);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        p += r;
        n -= static_cast<size_t>(r);
    }
    return true;
}

SSL_CTX* makeServerTlsContext() {
    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* cert = X509_new();
    SSL_CTX* ctx = SSL_CTX_new(TLS_server_method());
    bool ok = key && cert && ctx;
    if (ok) {
        ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
        X509_gmtime_adj(X509_getm_notBefore(cert), -3600);
        X509_gmtime_adj(X509_getm_notAfter(cert), 7 * 24 * 3600);
        X509_set_pubkey(cert, key);
        X509_NAME* name = X509_get_subject_name(cert);
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("localhost"),
                                   -1, -1, 0);
        X509_set_issuer_name(cert, name);
        ok = X509_sign(cert, key, EVP_sha256()) > 0 && SSL_CTX_use_certificate(ctx, cert) == 1 &&
             SSL_CTX_use_PrivateKey(ctx, key) == 1 && SSL_CTX_check_private_key(ctx) == 1;
    }
    X509_free(cert);
    EVP_PKEY_free(key);
    if (!ok) {
        SSL_CTX_free(ctx);
        return nullptr;
    }
    SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
    return ctx;
}

double monoSeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

namespace {
void rusageOf(int who, double& user, double& sys) {
    rusage ru;
    std::memset(&ru, 0, sizeof ru);
    ::getrusage(who, &ru);
    user = ru.ru_utime.tv_sec + ru.ru_utime.tv_usec / 1e6;
    sys = ru.ru_stime.tv_sec + ru.ru_stime.tv_usec / 1e6;
}

long statusField(const char* field) {
    std::FILE* f = std::fopen("/proc/self/status", "r");
    if (!f) return -1;
    char line[256];
    long value = -1;
    const size_t n = std::strlen(field);
    while (std::fgets(line, sizeof line, f)) {
        if (std::strncmp(line, field, n) == 0 && line[n] == ':') {
            value = std::strtol(line + n + 1, nullptr, 10);
            break;
        }
    }
    std::fclose(f);
    return value;
}
}  // namespace

void processCpu(double& user, double& sys) { rusageOf(RUSAGE_SELF, user, sys); }
void threadCpu(double& user, double& sys) { rusageOf(RUSAGE_THREAD, user, sys); }
long vmHwmKiB() { return statusField("VmHWM"); }
long vmRssKiB() { return statusField("VmRSS"); }

}  // namespace zrbench
