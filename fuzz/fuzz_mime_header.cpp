// MimeParser::getHeaderField and getSubField, and combineFetchParts, which
// uses both on a downloaded top header.
//
// Input: [field name]\n[header block]; the field name (at most 64 bytes) is
// also used as the parameter name looked for in the field's value.
#include <cstdint>
#include <cstring>
#include <string>

#include "FuzzSupport.h"

using namespace zr;

namespace {

void checkValue(const StringBuffer& value, bool found) {
    if (!found && value.getSize() != 0) zr::fuzz::die("a field that was not found left a value");
    if (std::memchr(value.getString(), '\n', value.getSize())) zr::fuzz::die("an unfolded value kept a line feed");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input = zr::fuzz::asText(data, size);
    const std::size_t nl = input.find('\n');
    if (nl == std::string::npos || nl > 64) return 0;
    const std::string name = input.substr(0, nl);
    const std::string header = input.substr(nl + 1);

    StringBuffer value;
    checkValue(value, MimeParser::getHeaderField(header.c_str(), name.c_str(), value));
    StringBuffer param;
    const bool gotParam = MimeParser::getSubField(value.getString(), name.c_str(), param);
    if (!gotParam && param.getSize() != 0) zr::fuzz::die("a parameter that was not found left a value");

    StringBuffer contentType, boundary;
    if (MimeParser::getHeaderField(header.c_str(), "Content-Type", contentType)) {
        MimeParser::getSubField(contentType.getString(), "boundary", boundary);
        MimeParser::getSubField(contentType.getString(), "charset", param);
    }

    _zrImap imap;
    zr::fuzz::TouchLog log(false);
    DataBuffer top, partMime, partBody, out;
    top.append(header.data(), static_cast<unsigned>(header.size()));
    partMime.appendStr("\r\n\r\nContent-Type: text/plain\r\n\r\n");
    partBody.appendStr("body");
    const unsigned before = top.getSize();
    const bool combined = imap.combineFetchParts(top, partMime, partBody, out, log);
    if (top.getSize() != before) zr::fuzz::die("combineFetchParts changed the top header");
    if (combined && out.getSize() < before + 4) zr::fuzz::die("the combined message is shorter than its parts");
    if (!combined && out.getSize() != 0) zr::fuzz::die("a failed combination produced output");
    return 0;
}
