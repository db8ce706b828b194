// Authentication: LOGIN, CAPABILITY and LOGOUT (RFC 3501), and the SASL
// mechanisms over AUTHENTICATE: PLAIN (RFC 4616), XOAUTH2 (an OAuth 2.0
// bearer token, RFC 6750, in the form mail servers accept), CRAM-MD5
// (RFC 2195), DIGEST-MD5 (RFC 2831, computed the way this engine has always
// computed it) and NTLM.
//
// Every exchange copies the password at the last moment, wipes the caller's
// copy at once and shows logs and the session log only masked forms.
#include <cstring>
#include <string>

#include "ResponseBudget.h"
#include "zrimap/auth/ClsBase.h"
#include "zrimap/auth/Digests.h"
#include "zrimap/auth/Http.h"
#include "zrimap/auth/Ntlm.h"
#include "zrimap/auth/Settings.h"
#include "zrimap/base/ContentCoding.h"
#include "zrimap/base/Progress.h"
#include "zrimap/base/StrFunctions.h"
#include "zrimap/imap/zrImap.h"
#include "zrimap/net/Socket2.h"

namespace zr {

namespace {

void reportProgress(SocketParams& sp, const char* name, const char* value) {
    if (ProgressMonitor* pm = sp.m_progressMonitor) pm->progressInfo(name, value);
}

// The final line's status word: after the first space and any further
// spaces, "OK" exactly. The tag itself is not looked at.
bool finalLineIsOk(const StringBuffer& line) {
    const char* p = std::strchr(line.getString(), ' ');
    if (!p) return false;
    while (*p == ' ') ++p;
    return p[0] == 'O' && p[1] == 'K';
}

// "name=value" in a DIGEST-MD5 response, the value between double quotes.
void appendQuotedField(StringBuffer& out, const char* name, const StringBuffer& value) {
    out.append(name);
    out.append("=\"");
    out.append(value);
    out.append("\",");
}

}  // namespace

bool _zrImap::sendAuthLine(const StringBuffer& text, LogBase& log, SocketParams& sp) {
    return m_socket->s2_sendFewBytes(reinterpret_cast<const unsigned char*>(text.getString()), text.getSize(),
                                     m_readTimeoutMs, log, sp);
}

void _zrImap::recordAuthLine(const StringBuffer& line, const char* logKey, LogBase& log, SocketParams& sp) {
    appendResponseLineToSessionLog(line.getString());
    reportProgress(sp, "ImapCmdResp", line.getString());
    log.LogDataSb_copyTrim(logKey, line);
}

// ---------------------------------------------------------------------------
// LOGIN, CAPABILITY, LOGOUT

bool _zrImap::loginImap(XString& login, SecurePassword& password, ImapResultSet& rs, LogBase& log,
                        SocketParams& sp) {
    LogContextExitor ctx(log, "loginImap");
    m_numEmailsInMailbox = 0;
    if (!m_socket) {
        log.logError(m_noConnectionError);
        return false;
    }
    m_socket->logConnectionType(log);

    StringBuffer tag;
    getNextTag(tag);
    rs.setTag(tag.getString());
    rs.setCommand("LOGIN");

    // Quotes are not escaped: the login and password go out as they stand.
    StringBuffer cmd(tag);
    cmd.append(" LOGIN \"");
    cmd.append(login.getAnsi());
    cmd.appendChar('"');
    appendRequestToSessionLog(cmd.getString());
    if (log.m_verboseLogging) log.LogDataSb_copyTrim("ImapCmdSent", cmd);

    cmd.append(" \"");
    m_lastCommand.setString(cmd);
    m_lastCommand.append("<password>\"");
    cmd.expectNumBytes(password.getSizeAnsi() + 3);  // no reallocation with the password inside
    cmd.append(password.getAnsi());
    password.secureClear();
    cmd.append("\"\r\n");

    const bool sent = sendCommand(cmd, log, sp);
    cmd.secureClear();
    if (!sent) {
        log.logError("Failed to send LOGIN command");
        return false;
    }
    if (ProgressMonitor* pm = sp.m_progressMonitor) {
        cmd.append(tag);
        cmd.append(" LOGIN ...");
        pm->progressInfo("ImapCmdSent", cmd.getString());
        cmd.secureClear();
    }
    return getCompleteResponse(tag.getString(), rs.getArray2(), log, sp, false);
}

bool _zrImap::capability(StringBuffer& out, LogBase& log, SocketParams& sp) {
    ImapResultSet rs;
    // Aborting after the send leaves the response unread on the connection.
    if (!runTaggedCommand("CAPABILITY", StringBuffer("CAPABILITY"), "Failed to send CAPABILITY command", rs, log, sp,
                          "IMAP CAPABILITY aborted by application"))
        return false;
    out.clear();
    rs.toStringBuffer(out);
    return true;
}

bool _zrImap::logout(StringBuffer& responseLine, SocketParams& sp, LogBase& log) {
    LogContextExitor ctx(log, "logout");
    m_idling = false;
    m_numEmailsInMailbox = 0;
    if (!m_socket) {
        log.logError(m_noConnectionError);
        return false;
    }
    appendInfoToSessionLog("Logout...");
    StringBuffer cmd;
    getNextTag(cmd);
    cmd.append(" LOGOUT");
    m_lastCommand.setString(cmd);
    cmd.append("\r\n");
    if (!sendAuthLine(cmd, log, sp)) {
        closeAfterFailure();
        return false;
    }
    appendResponseStartToSessionLog();
    // Only the BYE is awaited; the tagged completion stays unread.
    responseLine.clear();
    if (!getServerResponseLine2(responseLine, log, sp)) return false;
    appendResponseLineToSessionLog(responseLine.getString());
    reportProgress(sp, "ImapCmdResp", responseLine.getString());
    return true;
}

// ---------------------------------------------------------------------------
// AUTHENTICATE PLAIN

bool _zrImap::authenticatePlain(XString& authzId, XString& login, SecurePassword& password, ImapResultSet& rs,
                                LogBase& log, SocketParams& sp) {
    LogContextExitor ctx(log, "authenticatePlain");
    if (!m_socket) {
        log.logError(m_noConnectionError);
        return false;
    }
    appendInfoToSessionLog("(Authenticating w/PLAIN)");
    StringBuffer tag;
    getNextTag(tag);
    StringBuffer cmd(tag);
    cmd.append(" AUTHENTICATE PLAIN");
    m_lastCommand.setString(cmd);
    cmd.append("\r\n");
    rs.setTag(tag.getString());
    rs.setCommand("AUTHENTICATE");
    appendRequestToSessionLog(cmd.getString());

    if (!sendAuthLine(cmd, log, sp)) {
        log.logError("Authenticating w/PLAIN FAILED (1)");
        appendErrorToSessionLog("Authenticating w/PLAIN FAILED (1)");
        closeAfterFailure();
        return false;
    }
    reportProgress(sp, "ImapCmdSent", cmd.getString());
    log.LogDataSb_copyTrim("ImapCmdSent", cmd);

    StringBuffer line;
    if (!getServerResponseLine2(line, log, sp)) {
        log.logError("Authenticating w/PLAIN FAILED (2)");
        appendErrorToSessionLog("Authenticating w/PLAIN FAILED (2)");
        return false;
    }
    recordAuthLine(line, "plainResponse1", log, sp);
    if (!line.beginsWith("+")) {
        log.logError("Unexpected response from AUTHENTICATE PLAIN command.");
        appendErrorToSessionLog("Unexpected response from AUTHENTICATE PLAIN command.");
        return false;
    }

    DataBuffer credentials;
    credentials.append(authzId.getUtf8(), authzId.getSizeUtf8());
    credentials.appendChar(0);
    credentials.append(login.getUtf8(), login.getSizeUtf8());
    credentials.appendChar(0);
    credentials.append(password.getUtf8(), password.getSizeUtf8());
    password.secureClear();
    StringBuffer encoded;
    ContentCoding::encodeBase64_noCrLf(credentials.getData2(), credentials.getSize(), encoded);
    encoded.append("\r\n");
    credentials.secureClear();

    appendRequestToSessionLog("(Sending AuthzId/Login/Password in Base64 encoding)");
    if (!m_socket) {
        log.logError(m_noConnectionError);
        encoded.secureClear();
        return false;
    }
    const bool sent = sendAuthLine(encoded, log, sp);
    if (sent) {
        reportProgress(sp, "ImapCmdSent", encoded.getString());
        log.logData("ImapCmdSent", "(Sent AuthzId/Login/Password in Base64 encoding)");
    }
    encoded.secureClear();
    if (!sent) {
        log.logError("Authenticating w/PLAIN FAILED (3)");
        appendErrorToSessionLog("Authenticating w/PLAIN FAILED (3)");
        return false;
    }
    return getCompleteResponse(tag.getString(), rs.getArray2(), log, sp, false);
}

// ---------------------------------------------------------------------------
// AUTHENTICATE XOAUTH2

bool _zrImap::xoauth2Imap(XString& login, SecurePassword& token, ImapResultSet& rs, LogBase& log,
                          SocketParams& sp) {
    LogContextExitor ctx(log, "xoauth2Imap");
    if (!m_socket) {
        log.logError(m_noConnectionError);
        return false;
    }

    // A JSON object instead of a token describes a client-credentials request.
    StringBuffer bearer;
    bearer.append(token.getUtf8());
    bearer.trim2();
    if (bearer.charAt(0) == '{' && bearer.lastChar() == '}') {
        _clsOwner owner;
        ClsHttp* http = ClsHttp::createNewCls();
        if (!http) {
            log.logError("Failed to create HTTP object.");
            bearer.secureClear();
            return false;
        }
        owner.setClsBasePtr(http);
        http->setAuthToken(token, log);
        ProgressMonitor* pm = sp.m_progressMonitor;
        if (!http->check_update_oauth2_cc(log, pm ? pm->getProgressEvent() : nullptr)) {
            log.logError("Failed to get IMAP OAuth2 access token by client credentials.");
            bearer.secureClear();
            return false;
        }
        bearer.secureClear();
        bearer.append(http->getAccessToken());
    } else {
        bearer.secureClear();
        bearer.append(token.getUtf8());
    }

    DataBuffer sasl;
    sasl.appendStr("user=");
    sasl.append(login.getUtf8(), login.getSizeUtf8());
    sasl.appendChar(0x01);
    sasl.appendStr(token.beginsWithUtf8("Bearer ", false) ? "auth=" : "auth=Bearer ");
    sasl.append(bearer);
    bearer.secureClear();
    token.secureClear();
    login.secureClear();
    sasl.appendChar(0x01);
    sasl.appendChar(0x01);
    StringBuffer encoded;
    sasl.encodeDB("base64", encoded);
    sasl.secureClear();

    m_numEmailsInMailbox = 0;
    m_socket->logConnectionType(log);
    StringBuffer tag;
    getNextTag(tag);
    rs.setTag(tag.getString());
    rs.setCommand("AUTHENTICATE");
    StringBuffer cmd(tag);
    cmd.append(" AUTHENTICATE XOAUTH2 ");
    m_lastCommand.setString(cmd);
    m_lastCommand.append("<base64_token>");
    appendRequestToSessionLog(cmd.getString());
    if (log.m_verboseLogging) log.LogDataSb_copyTrim("ImapCmdSent", cmd);
    cmd.expectNumBytes(encoded.getSize() + 2);
    cmd.append(encoded);
    cmd.append("\r\n");
    encoded.secureClear();

    const bool sent = sendCommand(cmd, log, sp);
    cmd.secureClear();
    if (!sent) {
        log.logError("Failed to send AUTHENTICATE XOAUTH2 command");
        return false;
    }
    if (ProgressMonitor* pm = sp.m_progressMonitor) {
        cmd.append(tag);
        cmd.append(" AUTHENTICATE XOAUTH2 ...");
        pm->progressInfo("ImapCmdSent", cmd.getString());
        cmd.secureClear();
    }

    appendResponseStartToSessionLog();
    StringBuffer prefix(tag);
    prefix.appendChar(' ');
    StringBuffer line;
    ResponseBudget budget;
    for (;;) {
        ProgressMonitor* pm = sp.m_progressMonitor;
        if (pm && pm->get_Aborted(log)) {
            log.logError("Aborted when getting XOAUTH2 response from IMAP server.");
            appendErrorToSessionLog("Aborted when getting XOAUTH2 response from IMAP server.");
            imapDisconnect(log, sp);
            return false;
        }
        line.weakClear();
        if (!getServerResponseLine2(line, log, sp)) {
            log.logError("Failed to get next XOAUTH2 response line from IMAP server.");
            appendErrorToSessionLog("Failed to get XOAUTH2 next response line from IMAP server.");
            return false;
        }
        if (!budget.charge(line.getSize())) return budget.fail(*this, log);
        appendResponseLineToSessionLog(line.getString());
        reportProgress(sp, "ImapCmdResp", line.getString());
        if (log.m_verboseLogging) log.LogDataSb_copyTrim("ImapCmdResp", line);
        if (!rs.getArray2().appendString(line.getString())) return false;

        if (line.charAt(0) == '*') continue;
        if (line.charAt(0) == '+') {
            // An error challenge: the empty response lets the server finish with NO.
            StringBuffer empty("\r\n");
            if (!sendCommand(empty, log, sp)) {
                log.logError("Failed to send empty XOAUTH2 response");
                return false;
            }
            continue;
        }
        if (line.beginsWith(prefix.getString())) return true;
    }
}

// ---------------------------------------------------------------------------
// AUTHENTICATE CRAM-MD5

bool _zrImap::startChallengeLogin(const char* mechanism, const char* logStem, StringBuffer& line, LogBase& log,
                                  SocketParams& sp) {
    const std::string failed = std::string("Authenticating w/") + mechanism + " FAILED";
    StringBuffer cmd;
    getNextTag(cmd);
    cmd.append2(" AUTHENTICATE ", mechanism);
    m_lastCommand.setString(cmd);
    cmd.append("\r\n");
    appendRequestToSessionLog(cmd.getString());
    if (!sendAuthLine(cmd, log, sp)) {
        appendErrorToSessionLog(failed.c_str());
        closeAfterFailure();
        return false;
    }
    reportProgress(sp, "ImapCmdSent", cmd.getString());
    log.LogDataSb_copyTrim("ImapCmdSent", cmd);

    if (!getServerResponseLine2(line, log, sp)) {
        appendErrorToSessionLog((failed + " (2)").c_str());
        return false;
    }
    recordAuthLine(line, (std::string(logStem) + "Response1").c_str(), log, sp);
    // Also how a NO or BAD to the mechanism shows.
    if (line.beginsWith("+ ")) return true;
    line.trim2();
    log.LogDataSb((std::string(logStem) + "Response").c_str(), line);
    log.logError((std::string(mechanism) + " not implemented by this IMAP server.").c_str());
    return false;
}


bool _zrImap::authenticateCramMd5(XString& login, SecurePassword& password, StringBuffer& finalResponse,
                                  LogBase& log, SocketParams& sp) {
    LogContextExitor ctx(log, "authenticateCramMd5");
    if (!m_socket) {
        log.logError(m_noConnectionError);
        return false;
    }
    appendInfoToSessionLog("(Authenticating w/CRAM-MD5)");
    StringBuffer line;
    if (!startChallengeLogin("CRAM-MD5", "cramMd5", line, log, sp)) return false;
    DataBuffer challenge;
    const char* b64 = line.getString() + 2;
    ContentCoding::decodeBase64ToDb(b64, zrStrLen(b64), challenge);

    StringBuffer user(login.getAnsi());
    StringBuffer secret(password.getAnsi());
    password.secureClear();
    StringBuffer digest;
    _zrCramMD5::crammd5_generateData(user, secret, challenge, digest);
    secret.secureClear();

    StringBuffer reply;
    ContentCoding::encodeBase64_noCrLf(digest.getString(), digest.getSize(), reply);
    reply.append("\r\n");
    // A one-time digest, safe to show.
    appendRequestToSessionLog(reply.getString());
    if (!m_socket) {
        log.logError(m_noConnectionError);
        return false;
    }
    if (!sendAuthLine(reply, log, sp)) {
        appendErrorToSessionLog("Authenticating w/CRAM-MD5 FAILED (3)");
        log.logError("Failed to send CRAM-MD5 response");
        return false;
    }
    reportProgress(sp, "ImapCmdSent", reply.getString());
    log.LogDataSb_copyTrim("ImapCmdSent", reply);

    line.weakClear();
    if (!getServerResponseLine2(line, log, sp)) {
        appendErrorToSessionLog("Authenticating w/CRAM-MD5 FAILED (4)");
        return false;
    }
    recordAuthLine(line, "cramMd5Response2", log, sp);
    finalResponse.append(line);
    // Only this one line counts: an untagged line before the completion fails.
    return finalLineIsOk(line);
}

// ---------------------------------------------------------------------------
// AUTHENTICATE DIGEST-MD5

bool _zrImap::authenticateDigestMd5(XString& login, SecurePassword& password, StringBuffer& response,
                                    LogBase& log, SocketParams& sp) {
    LogContextExitor ctx(log, "authenticateDigestMd5");
    if (!m_socket) {
        log.logError(m_noConnectionError);
        return false;
    }
    appendInfoToSessionLog("(Authenticating w/Digest-MD5)");
    response.clear();  // deliberately never filled
    StringBuffer line;
    if (!startChallengeLogin("DIGEST-MD5", "digestMd5", line, log, sp)) return false;

    // --- the challenge ---
    StringBuffer user(login.getAnsi());
    StringBuffer secret(password.getAnsi());
    password.secureClear();
    DataBuffer decoded;
    const char* b64 = line.getString() + 2;
    ContentCoding::decodeBase64ToDb(b64, zrStrLen(b64), decoded);
    StringBuffer challenge;
    decoded.takeString(challenge);

    StringBuffer realm, qop, nonce, algorithm, charset, cnonce;
    ExtPtrArraySb items;
    challenge.split(items, ',', true, true);
    for (int i = 0; i < items.getSize(); ++i) {
        StringBuffer name, value;
        items.sbAt(i)->splitAttrValue(name, value, true);
        if (log.m_verboseLogging) {
            log.LogDataSb("name", name);
            log.LogDataSb("value", value);
        }
        if (name.equals("realm")) realm.setString(value);
        else if (name.equals("qop")) qop.setString(value);
        else if (name.equals("nonce")) nonce.setString(value);
        else if (name.equals("algorithm")) algorithm.setString(value);
        else if (name.equals("charset")) charset.setString(value);
    }
    // The realm, not the server's host name, names the service.
    StringBuffer digestUri("imap/");
    digestUri.append(realm);

    unsigned char md[16];
    StringBuffer userRealmPass(user);
    userRealmPass.appendChar(':');
    userRealmPass.append(realm);
    userRealmPass.appendChar(':');
    userRealmPass.append(secret);
    StringBuffer ha1;
    if (algorithm.isEmpty() || algorithm.equalsIgnoreCase("MD5")) {
        Md5Hasher::digestString(userRealmPass, md);
        Md5Hasher::toLowercaseHex(md, 16, ha1);
    } else if (algorithm.equalsIgnoreCase("MD5-sess")) {
        DataBuffer random;
        RandomSource::randomBytes(16, random);
        random.encodeDB("base64", cnonce);
        Md5Hasher::digestString(userRealmPass, md);
        DataBuffer a1;
        a1.append(md, 16);
        a1.appendChar(':');
        a1.append(nonce);
        a1.appendChar(':');
        a1.append(cnonce);
        Md5Hasher::digestData(a1, md);
        Md5Hasher::toLowercaseHex(md, 16, ha1);
        a1.secureClear();
    }
    userRealmPass.secureClear();

    StringBuffer ha2;
    if (qop.isEmpty() || qop.equalsIgnoreCase("auth")) {
        StringBuffer a2("AUTHENTICATE:");
        a2.append(digestUri);
        Md5Hasher::digestString(a2, md);
        Md5Hasher::toLowercaseHex(md, 16, ha2);
    } else if (qop.equalsIgnoreCase("auth-int")) {
        log.logError("auth-int not supported.");
    }

    StringBuffer kd(ha1);
    kd.appendChar(':');
    kd.append(nonce);
    kd.appendChar(':');
    if (qop.beginsWithIgnoreCase("auth")) {
        kd.append("00000001:");
        kd.append(cnonce);
        kd.appendChar(':');
        kd.append(qop);
        kd.appendChar(':');
    }
    kd.append(ha2);
    StringBuffer digest;
    Md5Hasher::digestString(kd, md);
    Md5Hasher::toLowercaseHex(md, 16, digest);

    StringBuffer text;
    if (!charset.isEmpty()) text.append3("charset=", charset.getString(), ",");
    appendQuotedField(text, "username", user);
    if (!realm.isEmpty()) appendQuotedField(text, "realm", realm);
    if (!nonce.isEmpty()) appendQuotedField(text, "nonce", nonce);
    text.append("nc=00000001,");
    if (!cnonce.isEmpty()) appendQuotedField(text, "cnonce", cnonce);
    if (!digestUri.isEmpty()) appendQuotedField(text, "digest-uri", digestUri);
    text.append2("response=", digest.getString());
    if (!qop.isEmpty()) text.append2(",qop=", qop.getString());

    // --- sending ---
    user.secureClear();
    secret.secureClear();
    StringBuffer reply;
    ContentCoding::encodeBase64_noCrLf(text.getString(), text.getSize(), reply);
    reply.append("\r\n");
    appendRequestToSessionLog(text.getString());
    if (!m_socket) {
        log.logError(m_noConnectionError);
        return false;
    }
    if (!sendAuthLine(reply, log, sp)) {
        appendErrorToSessionLog("Authenticating w/DIGEST-MD5 FAILED (3)");
        log.logError("Failed to send DIGEST-MD5 response");
        return false;
    }
    reportProgress(sp, "ImapCmdSent", text.getString());
    if (log.m_verboseLogging) log.LogDataSb_copyTrim("ImapCmdSent", text);

    line.weakClear();
    if (!getServerResponseLine2(line, log, sp)) {
        appendErrorToSessionLog("Authenticating w/DIGEST-MD5 FAILED (4)");
        return false;
    }
    recordAuthLine(line, "digestMd5Response2", log, sp);
    if (line.beginsWith("+") && line.getSize() >= 5) {
        // The server proves it knows the password too; the proof is only logged.
        DataBuffer rspauth;
        const char* p = line.getString() + 2;
        ContentCoding::decodeBase64ToDb(p, zrStrLen(p), rspauth);
        StringBuffer rspauthText;
        rspauth.takeString(rspauthText);
        log.LogDataSb("decodedResponse", rspauthText);
        if (!m_socket) {
            log.logError(m_noConnectionError);
            return false;
        }
        if (!sendAuthLine(StringBuffer("\r\n"), log, sp)) {
            appendErrorToSessionLog("Authenticating w/DIGEST-MD5 FAILED (4)");
            log.logError("Failed to send DIGEST-MD5 response");
            return false;
        }
        reportProgress(sp, "ImapCmdSent", "\r\n");
        line.weakClear();
        if (!getServerResponseLine2(line, log, sp)) {
            appendErrorToSessionLog("Authenticating w/DIGEST-MD5 FAILED (5)");
            return false;
        }
        recordAuthLine(line, "digestMd5Response3", log, sp);
    }
    return finalLineIsOk(line);
}

// ---------------------------------------------------------------------------
// AUTHENTICATE NTLM

bool _zrImap::authenticateNTLM(XString& login, SecurePassword& password, XString& domain,
                               StringBuffer& finalResponse, LogBase& log, SocketParams& sp) {
    LogContextExitor ctx(log, "authenticateNTLM");
    if (!m_socket) {
        log.logError(m_noConnectionError);
        return false;
    }
    appendInfoToSessionLog("(Authenticating w/NTLM)");
    m_ntlmScratch.clear();
    StringBuffer cmd;
    getNextTag(cmd);
    cmd.append(" AUTHENTICATE NTLM\r\n");
    appendRequestToSessionLog(cmd.getString());
    if (!sendAuthLine(cmd, log, sp)) {
        closeAfterFailure();
        return false;
    }
    reportProgress(sp, "ImapCmdSent", cmd.getString());
    log.LogDataSb_copyTrim("ImapCmdSent", cmd);

    // Whatever the server answers the bare command, the Type 1 message follows.
    if (!getServerResponseLine2(m_ntlmScratch, log, sp)) {
        m_ntlmScratch.trim2();
        finalResponse.setString(m_ntlmScratch);
        return false;
    }
    appendResponseLineToSessionLog(m_ntlmScratch.getString());
    reportProgress(sp, "ImapCmdResp", m_ntlmScratch.getString());
    m_ntlmScratch.trim2();
    log.LogDataSb("ntlmInitialResponse", m_ntlmScratch);

    _clsBaseHolder holder;
    ClsNtlm* ntlm = ClsNtlm::createNewCls();
    if (!ntlm) return false;
    holder.setClsBasePtr(ntlm);
    ntlm->put_UserName(login);
    ntlm->put_Password(password);
    password.secureClear();
    ntlm->put_Domain(domain);
    ntlm->put_NtlmVersion(_zrSettings::m_defaultNtlmVersion);
    StringBuffer host;
    Psdk::getComputerName(host);
    if (!host.isEmpty()) {
        XString workstation;
        workstation.appendAnsi(host.getString());
        ntlm->put_Workstation(workstation);
    }

    XString type1;
    if (!ntlm->genType1(type1, log)) return false;
    StringBuffer type1Line(type1.getUtf8());
    type1Line.append("\r\n");
    appendRequestToSessionLog(type1Line.getString());
    if (!m_socket) {
        log.logError(m_noConnectionError);
        return false;
    }
    if (!sendAuthLine(type1Line, log, sp)) {
        log.logError("Failed to send NTLM Type1 message");
        return false;
    }
    reportProgress(sp, "ImapCmdSent", type1Line.getString());
    type1.trim2();
    log.LogDataX("NtlmType1", type1);

    StringBuffer line;
    if (!getServerResponseLine2(line, log, sp)) return false;
    appendResponseLineToSessionLog(line.getString());
    reportProgress(sp, "ImapCmdResp", line.getString());
    m_ntlmScratch.setString(line);
    m_ntlmScratch.trim2();
    log.LogDataSb("NtlmType2", m_ntlmScratch);
    if (!line.beginsWith("+ ")) {
        log.LogDataSb("ntmlResponse", m_ntlmScratch);
        log.logError("NTLM not implemented by this IMAP server.");
        return false;
    }
    StringBuffer payload(line.getString() + 2);
    if (const char* space = std::strchr(payload.getString(), ' ')) {
        while (*space == ' ') ++space;
        if (std::strncmp(space, "NO ", 3) == 0 || std::strncmp(space, "BAD ", 4) == 0) {
            payload.trim2();
            log.LogDataSb("ntmlResponse", payload);
            log.logError("NTLM not implemented by this IMAP server.");
            return false;
        }
    }

    XString challenge;
    challenge.appendAnsi(payload.getString());
    XString type3;
    if (!ntlm->genType3(challenge, type3, log)) {
        log.logError("Failed to generate NTLM Type 3 message.");
        return false;
    }
    StringBuffer type3Line(type3.getUtf8());
    type3Line.append("\r\n");
    appendRequestToSessionLog(type3Line.getString());
    if (!m_socket) {
        log.logError(m_noConnectionError);
        return false;
    }
    if (!sendAuthLine(type3Line, log, sp)) {
        log.logError("Failed to send NTLM Type3 message");
        return false;
    }
    reportProgress(sp, "ImapCmdSent", type3Line.getString());
    type3.trim2();
    log.LogDataX("NtlmType3", type3);

    line.weakClear();
    if (!getServerResponseLine2(line, log, sp)) return false;
    appendResponseLineToSessionLog(line.getString());
    reportProgress(sp, "ImapCmdResp", line.getString());
    m_ntlmScratch.setString(line);
    m_ntlmScratch.trim2();
    log.LogDataSb("ntlmFinalResponse", m_ntlmScratch);
    finalResponse.setString(m_ntlmScratch);
    return finalLineIsOk(line);
}

}  // namespace zr
