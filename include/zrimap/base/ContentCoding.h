// Base64 with the RFC 4648 alphabet and '=' padding.
#pragma once

namespace zr {

class StringBuffer;
class DataBuffer;

class ContentCoding {
public:
    // Appends the encoding of n bytes, with padding and no line breaks.
    static bool encodeBase64_noCrLf(const void* bytes, unsigned n, StringBuffer& out);

    // Appends the decoded bytes of n characters of base64 text.
    // Spaces, tabs and line ends are skipped. Missing padding is accepted;
    // any other character, '=' anywhere but at the end, or a lone trailing
    // character is invalid: the result is false and out is left as it was.
    static bool decodeBase64ToDb(const char* text, unsigned n, DataBuffer& out);
};

}  // namespace zr
