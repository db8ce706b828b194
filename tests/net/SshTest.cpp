// SSH pieces that need no SSH server: private keys (formats, encryption,
// errors, signatures checked by ssh-keygen), the close time-out rule, the
// transport and engine calls without a tunnel, and handshakes against
// loopback peers that are not SSH servers (garbage, silence, abort).
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/sha.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>

#include "NetTestSupport.h"
#include "zrimap/engine.h"

using namespace zr;
using namespace zrtest;

namespace {

std::string run(const std::string& cmd, int* status = nullptr) {
    std::string out;
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return out;
    char buf[512];
    while (size_t n = fread(buf, 1, sizeof buf, p)) out.append(buf, n);
    const int st = pclose(p);
    if (status) *status = st;
    return out;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

void writeFile(const std::string& path, const std::string& data) {
    std::ofstream(path, std::ios::binary) << data;
}

// Keys made by ssh-keygen once per run, in a directory removed at the end.
class KeyDir {
public:
    static KeyDir& get() {
        static KeyDir dir;
        return dir;
    }
    ~KeyDir() { run("rm -rf '" + m_path + "'"); }
    // "<type>" unencrypted, "<type>_enc" with passphrase "pw" and cipher.
    std::string make(const std::string& name, const std::string& args) {
        const std::string path = m_path + "/" + name;
        run("ssh-keygen -q " + args + " -C comment-" + name + " -f '" + path + "' </dev/null >/dev/null 2>&1");
        return path;
    }
    const std::string& path() const { return m_path; }

private:
    KeyDir() {
        char tmpl[] = "/tmp/zrimap-sshtest-XXXXXX";
        m_path = mkdtemp(tmpl) ? tmpl : "/tmp";
    }
    std::string m_path;
};

std::string fingerprintByKeygen(const std::string& pubFile) {
    const std::string out = run("ssh-keygen -l -f '" + pubFile + "'");
    const size_t at = out.find("SHA256:");
    return at == std::string::npos ? "" : out.substr(at, out.find(' ', at) - at);
}

std::string firstTwoFields(const std::string& line) {
    const size_t a = line.find(' ');
    const size_t b = line.find_first_of(" \r\n", a + 1);
    return line.substr(0, b);
}

// Each field as an SSH string: a 32-bit big-endian length, then the bytes.
std::string sshStrings(std::initializer_list<std::string> fields) {
    std::string out;
    for (const std::string& s : fields) {
        for (int shift : {24, 16, 8, 0}) out += static_cast<char>(s.size() >> shift);
        out += s;
    }
    return out;
}

// Signs `message` as an SSHSIG (the format of ssh-keygen -Y sign) with the
// key's own signing code, so that ssh-keygen can judge the signature
// encoding independently. True when ssh-keygen accepts it.
bool sshKeygenAcceptsSignature(const _zrPublicKey& key, const char* alg, const std::string& message, LogBase& log) {
    const std::string ns = "zrimap-test";
    unsigned char digest[64];
    SHA512(reinterpret_cast<const unsigned char*>(message.data()), message.size(), digest);
    const std::string toSign =
        "SSHSIG" + sshStrings({ns, "", "sha512", std::string(reinterpret_cast<const char*>(digest), sizeof digest)});
    DataBuffer raw, blob;
    if (!key.sign(alg, reinterpret_cast<const unsigned char*>(toSign.data()), toSign.size(), raw, log)) return false;
    if (!key.getPublicBlob(key.keyType(), blob)) return false;
    const std::string sshsig = "SSHSIG" + std::string("\0\0\0\1", 4) +
                               sshStrings({str(blob), ns, "", "sha512", sshStrings({alg, str(raw)})});
    StringBuffer b64;
    ContentCoding::encodeBase64_noCrLf(sshsig.data(), static_cast<unsigned>(sshsig.size()), b64);
    std::string armored = "-----BEGIN SSH SIGNATURE-----\n";
    for (unsigned i = 0; i < b64.getSize(); i += 70) armored += std::string(b64.getString() + i).substr(0, 70) + "\n";
    armored += "-----END SSH SIGNATURE-----\n";
    const std::string dir = KeyDir::get().path();
    writeFile(dir + "/msg", message);
    writeFile(dir + "/msg.sig", armored);
    int status = -1;
    const std::string out = run("ssh-keygen -Y check-novalidate -n " + ns + " -s '" + dir + "/msg.sig' < '" + dir +
                                    "/msg' 2>&1",
                                &status);
    return status == 0 && out.find("Good") != std::string::npos;
}

std::string pemOf(EVP_PKEY* pkey, const char* passphrase) {
    BIO* bio = BIO_new(BIO_s_mem());
    if (passphrase)
        PEM_write_bio_PKCS8PrivateKey(bio, pkey, EVP_aes_256_cbc(), nullptr, 0, nullptr, const_cast<char*>(passphrase));
    else
        PEM_write_bio_PrivateKey(bio, pkey, nullptr, nullptr, 0, nullptr, nullptr);
    char* data = nullptr;
    const long n = BIO_get_mem_data(bio, &data);
    std::string pem(data, static_cast<size_t>(n));
    BIO_free(bio);
    return pem;
}

// A key with a passphrase: a wrong one or none is refused, and the key that
// was loaded before is gone.
void expectPassphraseRefused(_zrPublicKey& key, const std::string& text) {
    ASSERT_TRUE(key.isLoaded());
    for (const char* wrong : {"not it", "", static_cast<const char*>(nullptr)}) {
        MemoryLog log;
        EXPECT_FALSE(key.loadFromMemory(text.data(), text.size(), wrong, log));
        EXPECT_TRUE(hasErrorWith(log, wrong && *wrong ? "Wrong passphrase for the private key" : "a passphrase is needed"))
            << log.toText();
        EXPECT_FALSE(key.isLoaded());
    }
}

}  // namespace

// ---------------------------------------------------------------------------
// Keys

struct KeyCase {
    const char* name;
    const char* keygenArgs;
    const char* passphrase;
    const char* type;
};

void PrintTo(const KeyCase& c, std::ostream* os) { *os << c.name; }

class OpenSshKeys : public ::testing::TestWithParam<KeyCase> {};

// Every kind ssh-keygen writes loads to the same public key and fingerprint
// ssh-keygen reports, and its signatures pass ssh-keygen's own check.
TEST_P(OpenSshKeys, LoadMatchesSshKeygenAndSignaturesVerify) {
    const KeyCase& c = GetParam();
    const std::string path = KeyDir::get().make(c.name, c.keygenArgs);
    const std::string pub = readFile(path + ".pub");
    ASSERT_FALSE(pub.empty()) << "ssh-keygen did not make " << path;
    MemoryLog log;
    _zrPublicKey key;
    ASSERT_TRUE(key.loadFromFile(path.c_str(), c.passphrase, log)) << log.toText();
    EXPECT_STREQ(key.keyType(), c.type);
    StringBuffer line, fp;
    ASSERT_TRUE(key.getOpenSshPublicKey(line));
    EXPECT_EQ(firstTwoFields(line.getString()), firstTwoFields(pub));
    EXPECT_STREQ(key.comment().getString(), (std::string("comment-") + c.name).c_str());
    ASSERT_TRUE(key.getFingerprint(fp));
    EXPECT_EQ(fp.getString(), fingerprintByKeygen(path + ".pub"));

    const char* alg = key.signatureAlgorithm(std::string(c.type) == "ssh-rsa" ? "rsa-sha2-512" : nullptr);
    ASSERT_NE(alg, nullptr);
    EXPECT_TRUE(sshKeygenAcceptsSignature(key, alg, "signed through the tunnel code", log)) << log.toText();

    // From memory, the same; with a wrong passphrase, a clear refusal.
    const std::string text = readFile(path);
    _zrPublicKey again;
    ASSERT_TRUE(again.loadFromMemory(text.data(), text.size(), c.passphrase, log)) << log.toText();
    StringBuffer fp2;
    again.getFingerprint(fp2);
    EXPECT_STREQ(fp2.getString(), fp.getString());
    if (c.passphrase) expectPassphraseRefused(again, text);
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, OpenSshKeys,
    ::testing::Values(KeyCase{"ed25519", "-t ed25519 -N ''", nullptr, "ssh-ed25519"},
                      KeyCase{"ed25519_enc", "-t ed25519 -N pw", "pw", "ssh-ed25519"},
                      KeyCase{"rsa", "-t rsa -b 2048 -N ''", nullptr, "ssh-rsa"},
                      KeyCase{"rsa_enc", "-t rsa -b 2048 -N pw", "pw", "ssh-rsa"},
                      KeyCase{"ecdsa256", "-t ecdsa -b 256 -N ''", nullptr, "ecdsa-sha2-nistp256"},
                      KeyCase{"ecdsa384_enc", "-t ecdsa -b 384 -N pw", "pw", "ecdsa-sha2-nistp384"},
                      KeyCase{"ecdsa521", "-t ecdsa -b 521 -N ''", nullptr, "ecdsa-sha2-nistp521"},
                      KeyCase{"ed25519_cbc", "-t ed25519 -N pw -Z aes128-cbc", "pw", "ssh-ed25519"},
                      KeyCase{"ed25519_gcm", "-t ed25519 -N pw -Z aes256-gcm@openssh.com", "pw", "ssh-ed25519"}),
    [](const ::testing::TestParamInfo<KeyCase>& i) { return std::string(i.param.name); });

TEST(SshKeys, PemKeysFromOpenSsl) {
    struct Case {
        EVP_PKEY* pkey;
        const char* type;
    } cases[] = {{EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(2048)), "ssh-rsa"},
                 {EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-384"), "ecdsa-sha2-nistp384"},
                 {EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"), "ssh-ed25519"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.type);
        ASSERT_NE(c.pkey, nullptr);
        MemoryLog log;
        for (const char* pass : {static_cast<const char*>(nullptr), "pem-pass"}) {
            const std::string pem = pemOf(c.pkey, pass);
            _zrPublicKey key;
            ASSERT_TRUE(key.loadFromMemory(pem.data(), pem.size(), pass, log)) << log.toText();
            EXPECT_STREQ(key.keyType(), c.type);
            const char* alg = key.signatureAlgorithm(nullptr);
            EXPECT_TRUE(sshKeygenAcceptsSignature(key, alg, "pem", log)) << log.toText();
            if (pass) expectPassphraseRefused(key, pem);
        }
        EVP_PKEY_free(c.pkey);
    }
}

TEST(SshKeys, UnsupportedAndDamagedInputIsNamed) {
    MemoryLog log;
    _zrPublicKey key;
    auto refuses = [&](const std::string& text, const char* passphrase, const std::string& expected) {
        log.clear();
        const bool loaded = key.loadFromMemory(text.data(), text.size(), passphrase, log);
        EXPECT_FALSE(loaded) << text.substr(0, 40);
        EXPECT_TRUE(hasErrorWith(log, expected)) << expected << "\n" << log.toText();
        EXPECT_FALSE(key.isLoaded());
        EXPECT_STREQ(key.keyType(), "");
    };
    refuses("", nullptr, "empty");
    refuses("hello world", nullptr, "neither the OpenSSH format nor PEM");
    refuses("PuTTY-User-Key-File-3: ssh-ed25519\nEncryption: none\n", nullptr, "PuTTY");
    refuses("ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAIAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA x", nullptr,
            "This is a public key");

    const std::string good = readFile(KeyDir::get().make("victim", "-t ed25519 -N ''"));
    ASSERT_FALSE(good.empty());
    std::string cut = good;
    cut.erase(cut.find("-----END"));
    refuses(cut, nullptr, "END line is missing");
    // One base64 character changed inside the private section: the check
    // values or the key no longer agree.
    std::string flipped = good;
    const size_t mid = flipped.find('\n', 40) + 1 + 120;
    flipped[mid] = flipped[mid] == 'A' ? 'B' : 'A';
    refuses(flipped, nullptr, "damaged");

    const std::string chacha =
        readFile(KeyDir::get().make("chacha", "-t ed25519 -N pw -Z chacha20-poly1305@openssh.com"));
    if (!chacha.empty()) refuses(chacha, "pw", "Unsupported private key encryption: chacha20-poly1305@openssh.com");

    EVP_PKEY* dsa = EVP_PKEY_Q_keygen(nullptr, nullptr, "ED448");
    ASSERT_NE(dsa, nullptr);
    refuses(pemOf(dsa, nullptr), nullptr, "Unsupported key type");
    EVP_PKEY_free(dsa);
    EVP_PKEY* k1 = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "secp256k1");
    ASSERT_NE(k1, nullptr);
    refuses(pemOf(k1, nullptr), nullptr, "Unsupported ECDSA curve secp256k1");
    EVP_PKEY_free(k1);

    // Loading a good key after all that works, and clear() forgets it.
    ASSERT_TRUE(key.loadFromMemory(good.data(), good.size(), nullptr, log));
    EXPECT_STREQ(key.signatureAlgorithm("rsa-sha2-512"), "ssh-ed25519");  // only RSA has a choice
    key.clear();
    EXPECT_FALSE(key.isLoaded());
    StringBuffer fp;
    EXPECT_FALSE(key.getFingerprint(fp));
}

TEST(SshKeys, RsaSignatureAlgorithmChoice) {
    MemoryLog log;
    _zrPublicKey key;
    ASSERT_TRUE(key.loadFromFile(KeyDir::get().make("rsa_choice", "-t rsa -b 2048 -N ''").c_str(), nullptr, log));
    EXPECT_STREQ(key.signatureAlgorithm(nullptr), "rsa-sha2-256");
    EXPECT_STREQ(key.signatureAlgorithm(""), "rsa-sha2-256");
    EXPECT_STREQ(key.signatureAlgorithm("rsa-sha2-512"), "rsa-sha2-512");
    EXPECT_STREQ(key.signatureAlgorithm("ssh-rsa"), "ssh-rsa");
    EXPECT_EQ(key.signatureAlgorithm("rsa-md5"), nullptr);
    // Signing with rsa-sha2-256 is judged by ssh-keygen in PemKeysFromOpenSsl.
    // The blob carries the algorithm name it is asked for, the key stays.
    DataBuffer a, b;
    ASSERT_TRUE(key.getPublicBlob("rsa-sha2-256", a) && key.getPublicBlob("ssh-rsa", b));
    EXPECT_EQ(str(a).substr(4, 12), "rsa-sha2-256");
    EXPECT_EQ(str(a).substr(16), str(b).substr(11));
}

// ---------------------------------------------------------------------------
// Close time-out rule

TEST(SshReadParamsTest, CloseTimeoutFollowsTheReadTimeout) {
    EXPECT_EQ(SshReadParams::closeTimeoutFor(0xABCD0123u), 0u);
    EXPECT_EQ(SshReadParams::closeTimeoutFor(0), 21600000u);
    EXPECT_EQ(SshReadParams::closeTimeoutFor(1), 1u);
    EXPECT_EQ(SshReadParams::closeTimeoutFor(60000), 60000u);
    EXPECT_EQ(SshReadParams::closeTimeoutFor(0xABCD0122u), 0xABCD0122u);
}

// ---------------------------------------------------------------------------
// Without a tunnel, and against peers that are not SSH servers

class SshNoServer : public SocketTest {};

TEST_F(SshNoServer, CallsWithoutATunnelFailOrDoNothing) {
    XString user("u"), pw("p");
    _zrPublicKey key;
    SshReadParams rp;
    StringBuffer fp;
    EXPECT_FALSE(sock->isSsh());
    EXPECT_FALSE(sock->sshAuthenticatePw(user, pw, log, sp));
    EXPECT_TRUE(hasErrorWith(log, "No SSH tunnel"));
    EXPECT_FALSE(sock->sshAuthenticatePk(user, nullptr, key, log, sp));
    EXPECT_FALSE(sock->sshCloseChannel(rp, sp, log));
    EXPECT_TRUE(sock->sshCloseTunnel(sp, log));
    EXPECT_FALSE(sock->getSshHostKeyFingerprint(fp));
    EXPECT_FALSE(sock->takeSshTunnel(nullptr, Socket2::kNoSshChannel));

    SshTransport* t = SshTransport::createNew();
    t->incRefCount();
    EXPECT_FALSE(sock->takeSshTunnel(t, 7)) << "only a fresh channel can be asked for";
    ASSERT_TRUE(sock->takeSshTunnel(t, Socket2::kNoSshChannel));
    EXPECT_EQ(t->getRefCount(), 2);
    EXPECT_TRUE(sock->isSsh());
    // A tunnel that never connected: connects fail and say why, nothing
    // goes around it on a direct connection.
    EXPECT_FALSE(sock->socket2Connect(StringBuffer("127.0.0.1"), 143, false, tls, 1000, sp, log));
    EXPECT_TRUE(sp.m_connectFailed);
    EXPECT_TRUE(hasErrorWith(log, "the SSH tunnel is no longer connected (not connected)")) << log.toText();
    EXPECT_TRUE(sock->isSsh());
    EXPECT_FALSE(sock->sshAuthenticatePw(user, pw, log, sp));
    t->decRefCount();
}

TEST_F(SshNoServer, EngineTunnelCallsWithoutASocket) {
    _zrImap imap;
    XString user("u"), pw("p");
    _zrPublicKey key;
    StringBuffer fp;
    log.clear();
    EXPECT_FALSE(imap.sshAuthenticatePw(user, pw, log, sp));
    EXPECT_FALSE(imap.sshAuthenticatePk(user, key, log, sp));
    EXPECT_FALSE(imap.getSshHostKeyFingerprint(fp));
    EXPECT_FALSE(imap.useSshTunnel(nullptr, log));
    EXPECT_TRUE(imap.sshCloseTunnel(sp, log));
    EXPECT_TRUE(log.hasInfo("No IMAP socket connection exists (no SSH tunnel to be closed)."));

    // Disconnecting with a tunnel that is gone lets go of the socket.
    SshTransport* t = SshTransport::createNew();
    t->incRefCount();
    ASSERT_TRUE(imap.useSshTunnel(t, log));
    ASSERT_NE(imap.m_socket, nullptr);
    EXPECT_EQ(imap.m_socket->getCreatorCode(), 14);
    EXPECT_TRUE(imap.m_socket->isSsh());
    imap.imapDisconnect(log, sp);
    EXPECT_TRUE(log.hasInfo("Closing the SSH channel, if it exists."));
    EXPECT_TRUE(hasErrorWith(log, "Lost SSH tunnel when closing the channel."));
    EXPECT_EQ(imap.m_socket, nullptr);
    EXPECT_EQ(t->getRefCount(), 1);
    t->decRefCount();
}

// Garbage, a banner followed by nonsense, silence past the time-out and an
// abort with no time limit: each fails the connect and leaves no tunnel.
TEST_F(SshNoServer, HandshakeFailuresSayWhy) {
    struct Case {
        const char* name;
        std::function<void(PeerConn&)> peer;  // null: nothing listens
        unsigned idleMs;
        int abortAfterMs;  // -1: never
        const char* flags;
        const char* error;
    };
    const Case cases[] = {
        {"closed port", nullptr, 3000, -1, "connectFailed", "Connection refused"},
        {"HTTP instead of a banner",
         [](PeerConn& c) {
             c.write("HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n");
             c.close();
         },
         3000, -1, "connectFailed", "SSH handshake with 127.0.0.1:"},
        {"banner then nonsense",
         [](PeerConn& c) {
             c.write("SSH-2.0-Fake_1.0\r\n");
             c.readLine();  // the client's banner
             c.write(std::string(64, '\x7f') + std::string(200, 'z'));
             c.readUntilClosed();
         },
         3000, -1, "connectFailed", "SSH handshake with 127.0.0.1:"},
        {"silence", [](PeerConn& c) { c.readUntilClosed(); }, 400, -1, "timedOut connectFailed", "timed out (400 ms)"},
        {"abort", [](PeerConn& c) { c.readUntilClosed(); }, 0, 200, "connectFailed aborted",
         "aborted by the application"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        log.clear();
        AbortAfter sink(c.abortAfterMs);
        ProgressMonitor pm(&sink);
        SocketParams params(&pm);
        std::optional<PeerServer> server;
        if (c.peer) server.emplace(c.peer);
        sock->put_IdleTimeoutMs(c.idleMs);
        XString host("127.0.0.1");
        const auto start = std::chrono::steady_clock::now();
        EXPECT_FALSE(sock->sshTunnel(host, server ? server->port() : closedPort(), tls, log, params));
        EXPECT_EQ(flagsOf(params), c.flags);
        EXPECT_TRUE(hasErrorWith(log, c.error)) << log.toText();
        EXPECT_FALSE(sock->isSsh());
        EXPECT_LT(msSince(start), 3000);
        EXPECT_GE(msSince(start), c.idleMs == 400 ? 350 : 0);
    }
}
