// parseAddIdleResponseLine: one line pushed during IDLE turned into XML.
#include <cstdint>
#include <cstring>

#include "FuzzSupport.h"

using namespace zr;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    StringBuffer line;
    if (!line.appendN(reinterpret_cast<const char*>(data), static_cast<unsigned>(size))) return 0;
    _zrImap imap;
    zr::fuzz::TouchLog log(false);
    XString xml;
    xml.appendUtf8("<idle>");
    const bool ok = imap.parseAddIdleResponseLine(line, xml, log);
    const char* out = xml.getUtf8();
    if (std::strncmp(out, "<idle>", 6) != 0) zr::fuzz::die("the XML lost what came before the line");
    if (!ok && xml.getSizeUtf8() != 6) zr::fuzz::die("a refused line still added XML");
    return 0;
}
