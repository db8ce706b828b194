// Message download: flags-and-size parsing of FETCH responses, the whole
// message (BODY[] / RFC822, RFC 3501 section 6.4.5), the choice between that
// and a download without attachments, the download of header plus one
// displayable part with its reassembly into a MIME message (RFC 2046), and
// single body parts.
//
// Literals are read straight into the caller's buffer, reserved once; bytes
// the line reader already holds are moved, and surplus bytes go back to the
// socket for the next line.
#include <cstring>
#include <optional>

#include "ResponseBudget.h"
#include "zrimap/base/ImapMsgSummary.h"
#include "zrimap/base/MimeParser.h"
#include "zrimap/base/Progress.h"
#include "zrimap/base/StrFunctions.h"
#include "zrimap/imap/ImapFlags.h"
#include "zrimap/imap/zrImap.h"
#include "zrimap/net/Socket2.h"

namespace zr {

namespace {


// After the tag and its blank: skips further blanks and tests for "OK".
bool completionSaysOk(const StringBuffer& line, unsigned prefixLen) {
    const char* p = line.getString() + prefixLen;
    while (*p == ' ') ++p;
    return p[0] == 'O' && p[1] == 'K';
}

bool isCompletion(const StringBuffer& line, const StringBuffer& prefix) {
    return std::strncmp(line.getString(), prefix.getString(), 5) == 0;
}

bool readOnlyItems(bool readOnly, bool selectedReadOnly) { return readOnly || selectedReadOnly; }

}  // namespace

// ---------------------------------------------------------------------------
// Flags and size

bool _zrImap::parseFlagsAndSize(StringBuffer& text, unsigned int& size, ImapFlags& flags, StringBuffer& internalDate,
                                LogBase& log) {
    size = 0;
    flags.clearImapFlags();
    internalDate.clear();
    // A NUL would end the searches below early and could hide the literal
    // the server announced; no valid response carries one.
    if (std::memchr(text.getString(), 0, text.getSize())) {
        log.logError("The FETCH response contains a NUL byte.");
        return false;
    }
    // The text is searched in place, from its first character that is not a
    // blank or line end up to its first NUL: what a trimmed copy would show
    // to these searches, since none of them can match trailing white space.
    // The trimmed copy itself is made only for the log entries that show it.
    if (log.m_verboseLogging) {
        StringBuffer copy(text);
        copy.trim2();
        log.LogDataSb("flagsAndSizeData", copy);
    }
    const char* s = text.getString();
    while (*s == ' ' || *s == '\t' || *s == '\r' || *s == '\n') ++s;

    if (const char* date = std::strstr(s, "INTERNALDATE")) {
        const char* p = date + 12;
        while (*p == ' ' || *p == '\t') ++p;
        if (*p == '"') {
            if (const char* end = std::strchr(p + 1, '"'))
                internalDate.appendN(p + 1, static_cast<unsigned>(end - p - 1));
        }
    }

    // Only the first "{" counts, wherever it stands; the flags are looked
    // for only before it.
    const char* brace = std::strchr(s, '{');
    const char* regionEnd;
    if (brace) {
        regionEnd = brace + 1;
    } else {
        log.logInfo("Body size is 0 bytes.");
        if (!log.m_verboseLogging) {
            StringBuffer copy(text);
            copy.trim2();
            log.LogDataSb("flagsAndSizeData", copy);
        }
        regionEnd = s + std::strlen(s);
    }
    StringBuffer flagList;
    const size_t regionLen = static_cast<size_t>(regionEnd - s);
    if (const char* at = static_cast<const char*>(memmem(s, regionLen, "FLAGS", 5))) {
        const char* open = static_cast<const char*>(std::memchr(at, '(', static_cast<size_t>(regionEnd - at)));
        const char* close =
            open ? static_cast<const char*>(std::memchr(open + 1, ')', static_cast<size_t>(regionEnd - open - 1)))
                 : nullptr;
        if (close) flagList.appendN(open + 1, static_cast<unsigned>(close - open - 1));
    }
    if (log.m_verboseLogging) log.LogDataSb("flags", flagList);
    flags.setFlags(flagList);

    if (!brace) return true;
    // "%d" takes a sign: "-1" becomes 4294967295, which no buffer will hold.
    int n = 0;
    if (_zrStdio::_zrSscanf1(brace + 1, "%d", &n) == 1) {
        size = static_cast<unsigned>(n);
        return true;
    }
    log.logError("Failed to parse message size");
    return false;
}

// ---------------------------------------------------------------------------
// Shared pieces

bool _zrImap::sendFetchCommand(unsigned int msgId, bool bUid, const char* items, StringBuffer& tag, LogBase& log,
                               SocketParams& sp) {
    getNextTag(tag);
    StringBuffer line(tag);
    if (bUid) line.append(" UID");
    line.append(" FETCH ");
    line.append(msgId);
    line.append(items);
    if (log.m_verboseLogging) log.LogDataSb("fetchCommand", line);
    line.append("\r\n");
    const unsigned start = Psdk::getTickCount();
    if (!sendCommandLine(line, "Failed to send FETCH command", log, sp)) return false;
    ProgressMonitor* pm = sp.m_progressMonitor;
    if (pm && pm->get_Aborted(log)) {
        // The response is left unread on the connection.
        log.logInfo("IMAP fetch complete aborted by application");
        return false;
    }
    if (log.m_verboseLogging) log.LogElapsedMs("sendCommand", start);
    return true;
}

void _zrImap::recordLiteralMarker(unsigned int n, LogBase& log, SocketParams& sp) {
    // The marker goes only to the session log, the progress events and the
    // verbose log; with none of them there, it is not worth formatting.
    if (!m_keepSessionLog && !sp.m_progressMonitor && !log.m_verboseLogging) return;
    StringBuffer marker("(");
    marker.append(n);
    marker.append(" bytes)\r\n");
    recordResponseLine(marker, true, log, sp);
}

// ---------------------------------------------------------------------------
// Whole message

bool _zrImap::fetchCompleteWithAttachments_u(unsigned int msgId, bool bUid, ImapFlags& flags,
                                             StringBuffer& internalDate, StringBuffer& responseText, DataBuffer& mime,
                                             bool& bOk, SocketParams& sp, LogBase& log) {
    LogContextExitor ctx(log, "fetchCompleteA");
    bOk = false;
    mime.clear();
    internalDate.clear();
    // Peeking keeps a read-only session from marking the message \Seen.
    const char* items = readOnlyItems(m_readOnly, m_selectedReadOnly) ? " (FLAGS INTERNALDATE BODY.PEEK[])"
                                                                      : " (FLAGS INTERNALDATE BODY[])";
    StringBuffer tag;
    if (!sendFetchCommand(msgId, bUid, items, tag, log, sp)) return false;
    return getCompleteFetchResponse(tag.getString(), flags, internalDate, responseText, mime, bOk, sp, log);
}

bool _zrImap::getCompleteFetchResponse(const char* tag, ImapFlags& flags, StringBuffer& internalDate,
                                       StringBuffer& responseText, DataBuffer& mime, bool& bOk, SocketParams& sp,
                                       LogBase& log) {
    LogContextExitor ctx(log, "getCompleteFetchResponse");
    bOk = false;
    mime.clear();
    responseText.clear();
    internalDate.clear();
    StringBuffer prefix(tag);
    prefix.appendChar(' ');
    appendResponseStartToSessionLog();

    // Header phase: up to the line that announces the message.
    StringBuffer line;
    ResponseBudget budget;
    for (unsigned linesRead = 0;;) {
        if (!readCollectorLine(line, false, log, sp)) return false;
        if (!budget.charge(line.getSize())) return budget.fail(*this, log);
        ++linesRead;
        if (line.charAt(0) == '*') {
            recordResponseLine(line, true, log, sp);
            responseText.append(line);
            if (line.containsSubstring("RFC822") || line.containsSubstring("BODY[]")) break;
            continue;
        }
        if (isCompletion(line, prefix)) {
            recordResponseLine(line, true, log, sp);
            responseText.append(line);
            if (completionSaysOk(line, 5))
                log.logError("No email received.  No email exists with the given UID or sequence number.");
            return false;
        }
        if (linesRead > 1) break;  // not recorded anywhere
        log.LogDataSb("taggedResponse", line);
    }

    // Literal phase.
    unsigned size = 0;
    if (!parseFlagsAndSize(responseText, size, flags, internalDate, log)) {
        log.logError("Failed to parse flags and message size.");
        closeAfterFailure();  // where the message would end is unknown
        return false;
    }
    if (log.m_verboseLogging) log.LogDataLong("msgSize", static_cast<long>(size));
    if (size > 0) {
        const unsigned long long reserve = static_cast<unsigned long long>(size) + 2048;
        if (reserve > 0xFFFFFFFFull || !mime.ensureBuffer(static_cast<unsigned>(reserve))) {
            log.logError("Failed to allocate memory for MIME.");
            closeAfterFailure();  // the refused message is still on its way
            return false;
        }
        if (!receiveLiteral(size, mime, "imapGetCompleteResponse", "Failed while receiving MIME.",
                            "receiveMessageData", log, sp))
            return false;
        recordLiteralMarker(size, log, sp);
    }

    // Remainder phase: a FLAGS item after the literal replaces the flags
    // (servers report the \Seen they set while sending the body).
    if (log.m_verboseLogging) log.logInfo("Finished receiving MIME.");
    const unsigned start = Psdk::getTickCount();
    for (;;) {
        if (!readCollectorLine(line, false, log, sp)) return false;
        if (!budget.charge(line.getSize())) return budget.fail(*this, log);
        if (const char* f = std::strstr(line.getString(), "FLAGS (")) {
            const char* open = f + 6;
            if (const char* close = std::strchr(open + 1, ')')) {
                StringBuffer list;
                list.appendN(open + 1, static_cast<unsigned>(close - open - 1));
                if (log.m_verboseLogging) log.LogDataSb("flags2", list);
                flags.setFlags(list);
            }
        }
        recordResponseLine(line, true, log, sp);
        responseText.append(line);
        if (line.charAt(0) == '*' || !isCompletion(line, prefix)) continue;
        if (log.m_verboseLogging) log.LogElapsedMs("receiveRemainder", start);
        bOk = completionSaysOk(line, 5);
        return bOk;
    }
}

// ---------------------------------------------------------------------------
// Strategy

bool _zrImap::fetchComplete_u(unsigned int msgId, bool bUid, ImapMsgSummary* summary, ImapFlags& flags,
                              StringBuffer& internalDate, StringBuffer& responseText, DataBuffer& mime, bool& bOk,
                              SocketParams& sp, LogBase& log) {
    LogContextExitor ctx(log, "fetchComplete");
    if (log.m_verboseLogging) log.LogDataLong("autoDownloadAttachments", m_autoDownloadAttachments);
    if (m_autoDownloadAttachments)
        return fetchCompleteWithAttachments_u(msgId, bUid, flags, internalDate, responseText, mime, bOk, sp, log);

    ImapMsgSummary* temporary = nullptr;
    if (!summary) {
        temporary = summary = ImapMsgSummary::createNewObject();
        if (!summary) {
            log.logError("Cannot create new ImapMsgSummary");
            return false;
        }
    }
    // Deletes a summary made here on every way out.
    struct Owned {
        ImapMsgSummary*& p;
        ~Owned() { delete p; }
        void release() {
            delete p;
            p = nullptr;
        }
    } owned{temporary};

    if (summary->m_loaded == 0) {
        if (log.m_verboseLogging) log.logInfo("Fetching message summary. (UID BODYSTRUCTURE)");
        if (!fetchMsgSummary_u(msgId, bUid, "(UID BODYSTRUCTURE)", *summary, sp, log)) {
            log.logError("Failed to fetch message summary (UID BODYSTRUCTURE)");
            return false;
        }
    }
    const int attachments = summary->m_numAttachments;
    if (log.m_verboseLogging) {
        log.LogDataLong("numAttachmentsFromMsgSummary", attachments);
        summary->logMsgParts(log);
    }

    bool withoutAttachments = false;
    if (attachments > 0) {
        const ImapMsgPart* part0 = summary->getPart(0);
        const ImapMsgPart* part1 = summary->getPart(1);
        if (part0) {
            if (part0->isType("multipart", "mixed")) {
                withoutAttachments = true;
            } else if (part1 && part0->isType("multipart", "alternative") &&
                       part1->m_contentType.equalsIgnoreCase("text")) {
                withoutAttachments = true;
            } else {
                log.logError("This message contains attachments but is structured in an unusual way.  The full email "
                             "will be downloaded...");
                summary->logMsgParts(log);
            }
        }
    }
    if (withoutAttachments) {
        return fetchCompleteWithoutAttachments_u(msgId, bUid, *summary, flags, internalDate, responseText, mime, bOk,
                                                 sp, log);
    }
    owned.release();
    return fetchCompleteWithAttachments_u(msgId, bUid, flags, internalDate, responseText, mime, bOk, sp, log);
}

// ---------------------------------------------------------------------------
// Without attachments

bool _zrImap::fetchCompleteWithoutAttachments_u(unsigned int msgId, bool bUid, ImapMsgSummary& summary,
                                                ImapFlags& flags, StringBuffer& internalDate,
                                                StringBuffer& responseText, DataBuffer& mime, bool& bOk,
                                                SocketParams& sp, LogBase& log) {
    LogContextExitor ctx(log, "fetchCompleteWithoutAttachments");
    bOk = false;
    mime.clear();
    internalDate.weakClear();
    // A message that wraps another one is shown by its best inner part.
    StringBuffer partSpec("1");
    const ImapMsgPart* first = summary.findMsgPart("1");
    if (first && first->isType("message", "rfc822")) summary.findBestMsgPart(partSpec);

    StringBuffer items(readOnlyItems(m_readOnly, m_selectedReadOnly)
                           ? " (FLAGS INTERNALDATE BODY.PEEK[HEADER] BODY.PEEK[PartToFetch.MIME] BODY.PEEK[PartToFetch])"
                           : " (FLAGS INTERNALDATE BODY[HEADER] BODY[PartToFetch.MIME] BODY[PartToFetch])");
    items.replaceAllOccurances("PartToFetch", partSpec.getString());
    StringBuffer tag;
    if (!sendFetchCommand(msgId, bUid, items.getString(), tag, log, sp)) return false;
    return getCompleteFetchResponse2(tag.getString(), partSpec, flags, internalDate, responseText, mime, bOk, sp,
                                     log);
}

bool _zrImap::getCompleteFetchResponse2(const char* tag, StringBuffer& partSpec, ImapFlags& flags,
                                        StringBuffer& internalDate, StringBuffer& responseText, DataBuffer& mime,
                                        bool& bOk, SocketParams& sp, LogBase& log) {
    LogContextExitor ctx(log, "getCompleteFetchResponse2");
    const bool verbose = log.m_verboseLogging;
    bOk = false;
    mime.clear();
    responseText.clear();
    internalDate.clear();
    StringBuffer prefix(tag);
    prefix.appendChar(' ');
    appendResponseStartToSessionLog();

    // Phase 1: the message's own header.
    bool gotFinalTag = false;
    if (!getPartialResponse(prefix.getString(), "BODY[HEADER]", responseText, gotFinalTag, bOk, sp, log) ||
        gotFinalTag)
        return false;
    unsigned headerSize = 0;
    if (!parseFlagsAndSize(responseText, headerSize, flags, internalDate, log)) {
        log.logError("Failed to parse flags and top header size.");
        closeAfterFailure();  // where the header would end is unknown
        return false;
    }
    if (verbose) log.LogDataLong("imapTopHeaderSize", static_cast<long>(headerSize));
    DataBuffer topHeader;
    if (headerSize > 0) {
        if (!getNResponseBytes(headerSize, topHeader, sp, log)) {
            log.logError("Failed to read top header bytes.");
            return false;
        }
        responseText.trim2();
        responseText.append(" ... ");
        recordLiteralMarker(headerSize, log, sp);
    }
    if (verbose) {
        LogContextExitor c(log, "sbTopHeader");
        log.logInfo("--------------------------------------------------");
        StringBuffer text;
        text.append(topHeader);
        log.LogDataSb("sbTopHeader", text);
        log.logInfo("--------------------------------------------------");
    }

    // Phase 2: the part's body and MIME header, in whichever order they come.
    StringBuffer body("BODY[");
    body.append(partSpec);
    body.appendChar(']');
    StringBuffer mimeItem("BODY[");
    mimeItem.append(partSpec);
    mimeItem.append(".MIME]");
    auto with = [](const StringBuffer& item, const char* tail) {
        StringBuffer s(item);
        s.append(tail);
        return s;
    };
    const StringBuffer bodyNil = with(body, " NIL"), bodyLiteral = with(body, " {"), bodyEmpty = with(body, " \"\"");
    const StringBuffer mimeNil = with(mimeItem, " NIL"), mimeLiteral = with(mimeItem, " {");
    StringBuffer line;

    // The size of the literal announced right after `needle`; false after
    // reporting why not. A negative size is refused rather than read as an
    // empty literal, and the connection goes: the literal's bytes follow.
    auto literalSize = [&](const StringBuffer& needle, const char* notFound, int& n) {
        const int at = line.indexOf(needle.getString());
        if (at < 0 || _zrStdio::_zrSscanf1(line.getString() + at + needle.getSize(), "%d", &n) != 1 || n < 0) {
            log.logError(at < 0 ? notFound : "Failed to parse part size");
            log.LogDataSb("responseLine", line);
            closeAfterFailure();
            return false;
        }
        if (verbose) log.LogDataLong("partSize", n);
        return true;
    };
    // Reads a part's literal of n bytes into `into` and stands " ... " and
    // the "(n bytes)" marker in for it; an empty literal is marked only when
    // `markEmpty`.
    auto readPartLiteral = [&](int n, DataBuffer& into, const char* failure, bool markEmpty) {
        if (n > 0 && !getNResponseBytes(static_cast<unsigned>(n), into, sp, log)) {
            log.logError(failure);
            return false;
        }
        if (n > 0 || markEmpty) {
            responseText.trim2();
            responseText.append(" ... ");
            recordLiteralMarker(static_cast<unsigned>(n), log, sp);
        }
        return true;
    };
    bool bodyDone = false, mimeDone = false, closeSeen = false;
    DataBuffer partBody, partMime;
    ResponseBudget budget;
    budget.charge(responseText.getSize());  // what the header phase kept counts too
    while (!(bodyDone && mimeDone)) {
        std::optional<LogContextExitor> passCtx, readCtx;
        if (verbose) passCtx.emplace(log, "nextResponseLine");
        if (verbose) readCtx.emplace(log, "getServerResponseLine2");
        line.weakClear();
        const bool read = getServerResponseLine2(line, log, sp);
        readCtx.reset();
        if (!read) {
            log.logError("Failed to get read next BODY[part] response line.");
            appendErrorToSessionLog("Failed to get read next BODY[part] response line.");
            return false;
        }
        if (!budget.charge(line.getSize())) return budget.fail(*this, log);
        responseText.append(line);
        recordResponseLine(line, true, log, sp);

        if (!bodyDone) {
            if (verbose) {
                log.logInfo("Checking for body...");
                log.LogDataSb("sbNextLine", line);
            }
            if (line.containsSubstring(body.getString())) {
                if (line.containsSubstring(bodyNil.getString())) {
                    if (verbose) {
                        log.logInfo("Body is EMPTY");
                        log.LogDataSb("found", bodyNil);
                    }
                    StringBuffer trimmed(line);
                    trimmed.trim2();
                    if (line.containsSubstring(with(bodyNil, ")").getString()) ||
                        (line.containsSubstring(with(bodyNil, " FLAGS").getString()) && trimmed.endsWith("))")) ||
                        (line.containsSubstring(with(bodyNil, " UID").getString()) && trimmed.endsWith(")")))
                        closeSeen = true;
                    bodyDone = true;
                } else if (line.containsSubstring(bodyLiteral.getString())) {
                    int n = 0;
                    if (!literalSize(bodyLiteral, "Error parsing BODY[part] response line.", n)) return false;
                    if (n == 0 && verbose) log.logInfo("Body part size is 0.");
                    if (!readPartLiteral(n, partBody, "Failed to read BODY[part] bytes.", false)) return false;
                    bodyDone = true;
                } else if (line.containsSubstring(bodyEmpty.getString())) {
                    if (line.containsSubstring(with(bodyEmpty, ")").getString())) closeSeen = true;
                    bodyDone = true;
                } else if (line.containsSubstring(" \"")) {
                    // The first quoted text of the line, even when it belongs
                    // to another item.
                    StringBuffer quoted;
                    line.getDelimited("\"", "\"", false, quoted);
                    partBody.append(quoted);
                    if (line.containsSubstring("\")")) closeSeen = true;
                    bodyDone = true;
                } else {
                    log.logError("Error parsing BODY[part] response line");
                    log.LogDataSb("responseLine", line);
                    return false;
                }
            }
        }

        if (!mimeDone && line.containsSubstring(mimeItem.getString())) {
            if (line.containsSubstring(mimeNil.getString())) {
                if (line.containsSubstring(with(mimeNil, ")").getString())) closeSeen = true;
                mimeDone = true;
            } else if (!line.containsSubstring(mimeLiteral.getString())) {
                // A quoted MIME header is not accepted.
                log.logError("Error parsing BODY[part.MIME] response line");
                log.LogDataSb("responseLine", line);
                return false;
            } else {
                int n = 0;
                if (!literalSize(mimeLiteral, "Error parsing BODY[part.MIME] response line.", n)) return false;
                // Unlike the body, a zero-length MIME header is still marked.
                if (!readPartLiteral(n, partMime, "Failed to read BODY[part.MIME] bytes.", true)) return false;
                mimeDone = true;
            }
        }
    }

    // Phase 3: the closing parenthesis and the completion.
    if (!closeSeen) {
        LogContextExitor c(log, "receiveFinalParenLine");
        line.weakClear();
        if (!getServerResponseLine2(line, log, sp)) {
            log.logError("Failed to get read final paren line.");
            appendErrorToSessionLog("Failed to get read final paren line.");
            return false;
        }
        if (verbose) log.LogDataSb("finalParenLine", line);
        responseText.append(line);
        recordResponseLine(line, true, log, sp);
    }
    StringBuffer finalPart;
    bool success = getPartialResponse(prefix.getString(), nullptr, finalPart, gotFinalTag, bOk, sp, log);
    if (verbose) log.LogDataSb("finalResponsePart", finalPart);
    responseText.append(finalPart);
    if (verbose) {
        log.LogDataLong("bReceivedToFinalTagLine", gotFinalTag);
        log.LogDataLong("bOk", bOk);
        log.LogDataLong("success", success);
    }
    if (gotFinalTag && success && bOk) {
        success = combineFetchParts(topHeader, partMime, partBody, mime, log);
        if (!success) bOk = false;
    }
    return gotFinalTag && success && bOk;
}

// ---------------------------------------------------------------------------
// Reassembly

bool _zrImap::combineFetchParts(DataBuffer& topHeader, DataBuffer& partMimeHeader, DataBuffer& partBody,
                                DataBuffer& out, LogBase& log) {
    // The header is read as text; the terminator is taken off on every path.
    topHeader.appendChar(0);
    const char* header = reinterpret_cast<const char*>(topHeader.getData2());
    StringBuffer contentType, boundary;
    if (!MimeParser::getHeaderField(header, "Content-Type", contentType)) {
        log.logError("Failed to get content-type header.");
        log.logData("topLevelHeader", header);
        topHeader.shorten(1);
        return false;
    }
    if (!MimeParser::getSubField(contentType.getString(), "boundary", boundary)) {
        log.logError("Failed to get boundary subfield.");
        log.LogDataSb("contentTypeHdr", contentType);
        topHeader.shorten(1);
        return false;
    }
    topHeader.shorten(1);
    boundary.trim2();

    static const unsigned char kCrLf[] = {'\r', '\n'};
    while (partMimeHeader.beginsWith(kCrLf, 2)) partMimeHeader.removeHead(2);
    out.append(topHeader);
    out.appendStr("--");
    out.append(boundary);
    out.appendStr("\r\n");
    out.append(partMimeHeader);
    out.append(partBody);
    if (!out.endsWithStr("\r\n")) out.appendStr("\r\n");
    out.appendStr("--");
    out.append(boundary);
    out.appendStr("--\r\n");
    return true;
}

// ---------------------------------------------------------------------------
// One body part

bool _zrImap::fetchAttachment_u(unsigned int msgId, bool bUid, const char* partSpec, StringBuffer& responseText,
                                DataBuffer& data, bool& bOk, SocketParams& sp, LogBase& log) {
    LogContextExitor ctx(log, "fetchAttachment");
    bOk = false;
    responseText.clear();
    data.clear();
    StringBuffer items(readOnlyItems(m_readOnly, m_selectedReadOnly) ? " (BODY.PEEK[" : " (BODY[");
    items.append(partSpec);
    items.append("])");
    StringBuffer tag;
    if (!sendFetchCommand(msgId, bUid, items.getString(), tag, log, sp)) return false;
    return getFetchAttachmentResponse(tag.getString(), "BODY[", responseText, data, bOk, sp, log);
}

bool _zrImap::getFetchAttachmentResponse(const char* tag, const char* stopString, StringBuffer& responseText,
                                         DataBuffer& data, bool& bOk, SocketParams& sp, LogBase& log) {
    LogContextExitor ctx(log, "getFetchAttachmentResponse");
    bOk = false;
    data.clear();
    responseText.clear();
    StringBuffer prefix(tag);
    prefix.appendChar(' ');
    appendResponseStartToSessionLog();

    bool gotFinalTag = false;
    if (!getPartialResponse(prefix.getString(), stopString, responseText, gotFinalTag, bOk, sp, log) ||
        gotFinalTag) {
        log.LogDataSb("fetchCommand", m_lastCommand);
        return false;
    }
    // Only a literal is accepted: NIL or a quoted string fails here.
    const char* brace = std::strchr(responseText.getString(), '{');
    if (!brace) {
        log.logError("Failed to find attachment size in response.");
        return false;
    }
    int n = 0;
    if (_zrStdio::_zrSscanf1(brace + 1, "%d", &n) != 1 || n < 0) {
        log.logError("Failed to parse attachment data size");
        closeAfterFailure();  // the literal's bytes follow; they must not be read as lines
        return false;
    }
    if (n > 0) {
        if (!getNResponseBytes(static_cast<unsigned>(n), data, sp, log)) {
            log.logError("Failed to read attachment bytes.");
            return false;
        }
        responseText.trim2();
        responseText.append(" ... ");
        recordLiteralMarker(static_cast<unsigned>(n), log, sp);
    }
    StringBuffer line;
    if (!getServerResponseLine2(line, log, sp)) {
        log.logError("Failed to get read final paren line.");
        appendErrorToSessionLog("Failed to get read final paren line.");
        return false;
    }
    if (log.m_verboseLogging) log.LogDataSb("finalParenLine", line);

    StringBuffer finalPart;
    const bool success = getPartialResponse(prefix.getString(), nullptr, finalPart, gotFinalTag, bOk, sp, log);
    if (log.m_verboseLogging) {
        log.LogDataSb("finalResponsePart", finalPart);
        log.LogDataLong("bReceivedToFinalTagLine", gotFinalTag);
        log.LogDataLong("bOk", bOk);
        log.LogDataLong("success", success);
    }
    if (gotFinalTag && success && !bOk) log.LogDataSb("fetchCommand", m_lastCommand);
    return gotFinalTag && success && bOk;
}

}  // namespace zr
