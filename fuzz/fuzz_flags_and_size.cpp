// parseFlagsAndSize on one collected FETCH response text.
#include <cstdint>

#include "FuzzSupport.h"

using namespace zr;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    StringBuffer text;
    if (!text.appendN(reinterpret_cast<const char*>(data), static_cast<unsigned>(size))) return 0;
    _zrImap imap;
    zr::fuzz::TouchLog log(size % 2 == 0);
    ImapFlags flags;
    StringBuffer date;
    unsigned n = 12345;
    const bool ok = imap.parseFlagsAndSize(text, n, flags, date, log);
    if (!ok && n != 0) zr::fuzz::die("a failed parse left a size behind");
    if (date.getSize() > text.getSize()) zr::fuzz::die("the date is longer than the text it came from");
    StringBuffer all;
    flags.getAllFlags(all);
    return 0;
}
