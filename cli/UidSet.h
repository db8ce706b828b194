// UID arguments: "7", "3,5,9", "10:20", "30:*", several of them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zr {
namespace cli {

struct UidSet {
    std::vector<uint32_t> uids;  // the plain numbers, in the order given, without repeats
    std::string imapSet;         // the whole set in IMAP syntax, e.g. "3,5,10:20"
    bool hasRanges = false;      // true when a range or "*" needs the server to resolve it
};

// Throws a usage error for anything that is not a valid UID set (0 included).
UidSet parseUidSet(const std::vector<std::string>& args);

}  // namespace cli
}  // namespace zr
