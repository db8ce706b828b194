// Everything the tool prints on stdout: readable text, or with --json one
// JSON document (idle: one JSON object per line, as events arrive).
#pragma once

#include <string>

#include <nlohmann/json.hpp>

namespace zr {
namespace cli {

using Json = nlohmann::ordered_json;

class Output {
public:
    explicit Output(bool json) : m_json(json) {}
    bool json() const { return m_json; }

    // Text mode only.
    void line(const std::string& text) const;
    // JSON mode only: the whole document, pretty-printed.
    void document(const Json& doc) const;
    // JSON mode only: one compact object on its own line, flushed at once.
    void jsonLine(const Json& doc) const;

private:
    bool m_json;
};

// Invalid UTF-8 from a server must not make the dump throw.
std::string dumpJson(const Json& doc, int indent);

// A set of flags as a JSON array and as "\Seen \Flagged" text.
template <class Flags>
Json flagsJson(const Flags& flags) {
    Json a = Json::array();
    for (const auto& f : flags) a.push_back(f);
    return a;
}
template <class Flags>
std::string flagsText(const Flags& flags) {
    std::string s;
    for (const auto& f : flags) {
        if (!s.empty()) s += ' ';
        s += f;
    }
    return s;
}

}  // namespace cli
}  // namespace zr
