// Helpers shared by the micro-benchmarks and the end-to-end program:
// deterministic test messages, loopback sockets, a throwaway TLS identity
// and the process measurements (CPU, peak RSS).
#pragma once

#include <openssl/ssl.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace zrbench {

// --- messages (CRLF line ends throughout, so a server that stores LF and
// expands on output hands back the very same bytes) ---

// A text message with one base64 attachment of pseudo-random data, exactly
// totalBytes long (totalBytes >= 1024).
std::string makeBigMessage(size_t totalBytes, unsigned seed);

// A small message of roughly 1.5 to 4 KB; the same index gives the same
// bytes.
std::string makeSmallMessage(unsigned index);

// --- loopback (127.0.0.1 only) ---

// A listening socket on 127.0.0.1 with a kernel-chosen port; -1 on failure.
int listenLoopback(int& port);
// A blocking connected socket with TCP_NODELAY; -1 on failure.
int connectLoopback(int port);
// Writes everything (blocking); false when the peer has gone.
bool sendAllFd(int fd, const void* data, size_t n);

// --- TLS ---

// A server context with a fresh self-signed P-256 certificate for
// CN=localhost, made in memory; null on failure.
SSL_CTX* makeServerTlsContext();

// --- measurements ---

double monoSeconds();
// User and system CPU of the calling process, in seconds.
void processCpu(double& user, double& sys);
// User and system CPU of the calling thread, in seconds.
void threadCpu(double& user, double& sys);
// VmHWM (peak resident set) of this process in KiB, or -1.
long vmHwmKiB();
// VmRSS (current resident set) of this process in KiB, or -1.
long vmRssKiB();

}  // namespace zrbench
