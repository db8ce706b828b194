// Two helpers for MIME header blocks.
#pragma once

namespace zr {

class StringBuffer;

class MimeParser {
public:
    // out = the value of the first header field called `name` (compared
    // without regard to case) in a header block. The block ends at the first
    // empty line. Folded lines are unfolded (the line break is removed, the
    // white space that starts the next line stays) and the value is trimmed.
    // False, out cleared, when the field is absent.
    static bool getHeaderField(const char* header, const char* name, StringBuffer& out);

    // out = the value of parameter `attr` (compared without regard to case)
    // in a field value such as `multipart/mixed; boundary="b1"`. Quoted values
    // lose their quotes and have backslash escapes resolved; unquoted ones
    // end at ';' or white space. Text inside another parameter's quotes never
    // matches. False, out cleared, when absent.
    static bool getSubField(const char* fieldValue, const char* attr, StringBuffer& out);
};

}  // namespace zr
