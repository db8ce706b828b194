// ContentCoding::decodeBase64ToDb, checked against the encoder: whatever
// decodes must encode and decode again to the same bytes, a refused text
// leaves the output as it was, and any bytes survive an encode/decode round.
#include <cstdint>
#include <cstring>

#include "FuzzSupport.h"

using namespace zr;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > 1u << 20) return 0;
    const char* text = reinterpret_cast<const char*>(data);
    DataBuffer out;
    out.appendStr("keep");
    const bool ok = ContentCoding::decodeBase64ToDb(text, static_cast<unsigned>(size), out);
    if (!ok) {
        if (out.getSize() != 4 || std::memcmp(out.getData2(), "keep", 4) != 0)
            zr::fuzz::die("a refused text changed the output");
    } else {
        if (out.getSize() < 4 || out.getSize() - 4 > size / 4 * 3 + 2) zr::fuzz::die("decoded more bytes than possible");
        StringBuffer again;
        if (!ContentCoding::encodeBase64_noCrLf(out.getData2() + 4, out.getSize() - 4, again))
            zr::fuzz::die("could not encode decoded bytes");
        DataBuffer round;
        if (!ContentCoding::decodeBase64ToDb(again.getString(), again.getSize(), round))
            zr::fuzz::die("the encoder's output does not decode");
        if (round.getSize() != out.getSize() - 4 ||
            (round.getSize() && std::memcmp(round.getData2(), out.getData2() + 4, round.getSize()) != 0))
            zr::fuzz::die("decode(encode(decode(x))) differs from decode(x)");
    }

    StringBuffer encoded;
    if (!ContentCoding::encodeBase64_noCrLf(data, static_cast<unsigned>(size), encoded)) {
        if (size != 0) zr::fuzz::die("could not encode");
        return 0;
    }
    if (encoded.getSize() != (size + 2) / 3 * 4) zr::fuzz::die("encoded length is wrong");
    DataBuffer back;
    if (!ContentCoding::decodeBase64ToDb(encoded.getString(), encoded.getSize(), back))
        zr::fuzz::die("the encoder's output does not decode");
    if (back.getSize() != size || (size && std::memcmp(back.getData2(), data, size) != 0))
        zr::fuzz::die("decode(encode(x)) differs from x");
    return 0;
}
