#include "UidSet.h"

#include <algorithm>

#include "CliError.h"
#include "Options.h"

namespace zr {
namespace cli {

namespace {

bool isStar(const std::string& s) { return s == "*"; }

uint32_t parseUid(const std::string& text) {
    return static_cast<uint32_t>(parseNumber(text, 1, 4294967295LL, "a UID"));
}

}  // namespace

UidSet parseUidSet(const std::vector<std::string>& args) {
    UidSet set;
    for (const std::string& arg : args) {
        size_t start = 0;
        while (start <= arg.size()) {
            size_t comma = arg.find(',', start);
            std::string item = arg.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
            if (item.empty()) usageError("empty item in UID set '" + arg + "'");
            size_t colon = item.find(':');
            if (colon == std::string::npos) {
                if (isStar(item)) {
                    set.hasRanges = true;
                } else {
                    uint32_t uid = parseUid(item);
                    if (std::find(set.uids.begin(), set.uids.end(), uid) == set.uids.end()) set.uids.push_back(uid);
                }
            } else {
                std::string lo = item.substr(0, colon), hi = item.substr(colon + 1);
                if (!isStar(lo)) parseUid(lo);
                if (!isStar(hi)) parseUid(hi);
                set.hasRanges = true;
            }
            if (!set.imapSet.empty()) set.imapSet += ',';
            set.imapSet += item;
            if (comma == std::string::npos) break;
            start = comma + 1;
        }
    }
    if (set.imapSet.empty()) usageError("no UIDs given");
    return set;
}

}  // namespace cli
}  // namespace zr
