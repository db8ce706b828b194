#include "Output.h"

#include <iostream>

namespace zr {
namespace cli {

std::string dumpJson(const Json& doc, int indent) {
    return doc.dump(indent, ' ', false, nlohmann::json::error_handler_t::replace);
}

void Output::line(const std::string& text) const {
    if (!m_json) std::cout << text << '\n';
}

void Output::document(const Json& doc) const {
    if (m_json) std::cout << dumpJson(doc, 2) << '\n';
}

void Output::jsonLine(const Json& doc) const {
    if (m_json) std::cout << dumpJson(doc, -1) << std::endl;
}

}  // namespace cli
}  // namespace zr
