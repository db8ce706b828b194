#include "CliError.h"

namespace zr {
namespace cli {

std::string oneLine(const std::string& text) {
    std::string out;
    bool pendingBreak = false;
    for (char c : text) {
        if (c == '\r' || c == '\n') {
            pendingBreak = !out.empty();
            continue;
        }
        if (pendingBreak) {
            out += "; ";
            pendingBreak = false;
        }
        out += c;
    }
    while (!out.empty() && (out.back() == ' ' || out.back() == '\t')) out.pop_back();
    return out;
}

}  // namespace cli
}  // namespace zr
