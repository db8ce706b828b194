// imap:// and imaps:// URLs (the server part of RFC 5092) into
// ServerSettings.
#include <cctype>
#include <string>

#include "ClientDetail.h"
#include "zrimap/client.h"

namespace zr {

namespace {

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Percent-decodes; false on a malformed escape.
bool percentDecode(const std::string& in, std::string& out) {
    out.clear();
    for (size_t i = 0; i < in.size(); ++i) {
        if (in[i] != '%') {
            out += in[i];
            continue;
        }
        if (i + 2 >= in.size()) return false;
        const int hi = hexValue(in[i + 1]), lo = hexValue(in[i + 2]);
        if (hi < 0 || lo < 0) return false;
        out += static_cast<char>(hi * 16 + lo);
        i += 2;
    }
    return true;
}

bool hasControl(const std::string& s) {
    for (char c : s) {
        const auto u = static_cast<unsigned char>(c);
        if (u < 0x20 || u == 0x7F) return true;
    }
    return false;
}

Status bad(const std::string& why) { return Status::failure("Malformed IMAP URL: " + why); }

bool parseMechanism(const std::string& name, AuthMechanism& out) {
    const std::string m = lower(name);
    if (m == "*") out = AuthMechanism::Auto;
    else if (m == "login") out = AuthMechanism::Login;
    else if (m == "plain") out = AuthMechanism::Plain;
    else if (m == "cram-md5") out = AuthMechanism::CramMd5;
    else if (m == "digest-md5") out = AuthMechanism::DigestMd5;
    else if (m == "ntlm") out = AuthMechanism::Ntlm;
    else if (m == "xoauth2") out = AuthMechanism::XOAuth2;
    else return false;
    return true;
}

bool isHostNameChar(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '.' || c == '_';
}

}  // namespace

Result<ServerSettings> ServerSettings::fromUrl(const std::string& urlIn) {
    try {
        std::string url = urlIn;
        while (!url.empty() && (url.back() == ' ' || url.back() == '\t' || url.back() == '\r' || url.back() == '\n'))
            url.pop_back();
        size_t lead = 0;
        while (lead < url.size() && (url[lead] == ' ' || url[lead] == '\t')) ++lead;
        url.erase(0, lead);
        if (url.empty()) return bad("the URL is empty");
        for (char c : url)
            if (static_cast<unsigned char>(c) <= 0x20 || static_cast<unsigned char>(c) >= 0x7F)
                return bad("spaces, control characters and raw non-ASCII bytes must be percent-encoded");

        const size_t colon = url.find("://");
        if (colon == std::string::npos) return bad("expected imap://host or imaps://host");
        const std::string scheme = lower(url.substr(0, colon));
        ServerSettings s;
        if (scheme == "imaps") {
            s.security = Security::Tls;
        } else if (scheme == "imap") {
            s.security = Security::StartTls;
        } else {
            return bad("unsupported scheme '" + url.substr(0, colon) + "' (use imap:// or imaps://)");
        }

        std::string rest = url.substr(colon + 3);
        const size_t special = rest.find_first_of("?#");
        if (special != std::string::npos)
            return bad(rest[special] == '?' ? "queries ('?') are not supported"
                                            : "fragments ('#') are not supported");
        const size_t slash = rest.find('/');
        const std::string authority = rest.substr(0, slash);
        const std::string path = slash == std::string::npos ? std::string() : rest.substr(slash + 1);

        // userinfo: the last '@' separates it, so an unencoded '@' in an
        // e-mail address used as the login still works.
        std::string hostPort = authority;
        const size_t at = authority.rfind('@');
        if (at != std::string::npos) {
            std::string userinfo = authority.substr(0, at);
            hostPort = authority.substr(at + 1);
            if (userinfo.find(':') != std::string::npos)
                return Status::failure(
                    "A password in the URL is refused: it would show in shell histories and process lists. "
                    "Give it separately (ServerSettings::password).");
            // RFC 5092 ";AUTH=<mechanism>" after the user name.
            const size_t semi = userinfo.find(';');
            if (semi != std::string::npos) {
                const std::string param = userinfo.substr(semi + 1);
                userinfo.erase(semi);
                if (lower(param.substr(0, 5)) != "auth=") return bad("unknown user parameter ';" + param + "'");
                std::string mech;
                if (!percentDecode(param.substr(5), mech) || !parseMechanism(mech, s.mechanism))
                    return bad("unknown authentication mechanism '" + param.substr(5) + "'");
            }
            if (!percentDecode(userinfo, s.user)) return bad("malformed percent-escape in the user name");
            if (s.user.empty()) return bad("empty user name before '@'");
            if (hasControl(s.user) || !client_detail::isValidUtf8(s.user))
                return bad("the user name holds control characters or is not valid UTF-8");
        }

        std::string portText;
        if (!hostPort.empty() && hostPort[0] == '[') {
            const size_t close = hostPort.find(']');
            if (close == std::string::npos) return bad("unterminated '[' in an IPv6 address");
            s.host = hostPort.substr(1, close - 1);
            if (s.host.empty()) return bad("empty IPv6 address");
            for (char c : s.host)
                if (!std::isxdigit(static_cast<unsigned char>(c)) && c != ':' && c != '.')
                    return bad("invalid character in the IPv6 address [" + s.host + "]");
            if (s.host.find(':') == std::string::npos) return bad("[" + s.host + "] is not an IPv6 address");
            const std::string after = hostPort.substr(close + 1);
            if (!after.empty()) {
                if (after[0] != ':') return bad("unexpected text after the IPv6 address");
                portText = after.substr(1);
            }
        } else {
            const size_t portColon = hostPort.find(':');
            s.host = hostPort.substr(0, portColon);
            if (portColon != std::string::npos) portText = hostPort.substr(portColon + 1);
            for (char c : s.host)
                if (!isHostNameChar(c)) return bad(std::string("invalid character '") + c + "' in the host name");
        }
        if (s.host.empty()) return bad("no host name");
        if (!portText.empty()) {
            if (portText.size() > 5) return bad("port '" + portText + "' out of range");
            int port = 0;
            for (char c : portText) {
                if (!std::isdigit(static_cast<unsigned char>(c))) return bad("port '" + portText + "' is not a number");
                port = port * 10 + (c - '0');
            }
            if (port < 1 || port > 65535) return bad("port " + portText + " out of range (1-65535)");
            s.port = port;
        }

        if (!path.empty()) {
            // Message and part references (";UID=", ";SECTION=") name more
            // than a server and a mailbox.
            const std::string lp = lower(path);
            for (const char* param : {";uidvalidity=", ";uid=", ";section=", ";partial=", ";urlauth="})
                if (lp.find(param) != std::string::npos)
                    return bad("message references (" + std::string(param) + "...) are not supported");
            if (!percentDecode(path, s.mailbox)) return bad("malformed percent-escape in the mailbox");
            if (hasControl(s.mailbox) || !client_detail::isValidUtf8(s.mailbox))
                return bad("the mailbox holds control characters or is not valid UTF-8");
            while (!s.mailbox.empty() && s.mailbox.back() == '/') s.mailbox.pop_back();
        }
        return s;
    } catch (const std::bad_alloc&) {
        return Status::failure("Out of memory");
    } catch (const std::exception& e) {
        return Status::failure(std::string("Internal error: ") + e.what());
    }
}

}  // namespace zr
