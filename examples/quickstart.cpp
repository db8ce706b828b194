// quickstart: connect, list the mailboxes, show the subjects of the last
// five messages in INBOX, log out.
//
//   ZRIMAP_PASSWORD=secret ./quickstart imaps://alice@mail.example.org
//   ZRIMAP_PASSWORD=secret ./quickstart imap://alice@localhost:1143 --ca-file ca.pem
//
// The password comes from the environment, not the command line, so that it
// stays out of shell histories and process lists.
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include "zrimap/client.h"

namespace {

// The value of one header field, unfolded; empty when absent.
std::string headerField(const std::vector<uint8_t>& mime, const std::string& name) {
    const std::string text(mime.begin(), mime.end());
    const size_t headerEnd = text.find("\r\n\r\n");
    const std::string header = text.substr(0, headerEnd);
    size_t pos = 0;
    while (pos < header.size()) {
        size_t end = header.find("\r\n", pos);
        if (end == std::string::npos) end = header.size();
        const std::string line = header.substr(pos, end - pos);
        if (line.size() > name.size() && line[name.size()] == ':' &&
            strncasecmp(line.c_str(), name.c_str(), name.size()) == 0) {
            std::string value = line.substr(name.size() + 1);
            // Folded continuation lines start with white space.
            while (end + 2 < header.size() && (header[end + 2] == ' ' || header[end + 2] == '\t')) {
                const size_t next = std::min(header.find("\r\n", end + 2), header.size());
                value += header.substr(end + 2, next - end - 2);
                end = next;
            }
            const size_t first = value.find_first_not_of(" \t");
            return first == std::string::npos ? std::string() : value.substr(first);
        }
        pos = end + 2;
    }
    return {};
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::cerr << "usage: ZRIMAP_PASSWORD=... " << argv[0] << " imaps://user@host[:port] [--ca-file FILE]\n";
        return 2;
    }
    auto parsed = zr::ServerSettings::fromUrl(argv[1]);
    if (!parsed) {
        std::cerr << parsed.message() << "\n";
        return 2;
    }
    zr::ServerSettings settings = parsed.value();
    if (argc >= 4 && std::strcmp(argv[2], "--ca-file") == 0) settings.caFile = argv[3];
    const char* password = std::getenv("ZRIMAP_PASSWORD");
    if (!password) {
        std::cerr << "Set ZRIMAP_PASSWORD to the password of " << settings.user << "\n";
        return 2;
    }
    settings.password = password;

    zr::ImapClient client;
    if (auto st = client.connect(settings); !st) {
        std::cerr << "connect: " << st.message() << "\n";
        return 1;
    }

    auto boxes = client.listMailboxes();
    if (!boxes) {
        std::cerr << "list: " << boxes.message() << "\n";
        return 1;
    }
    std::cout << "Mailboxes:\n";
    for (const zr::MailboxEntry& box : boxes.value())
        std::cout << "  " << box.name << (box.selectable() ? "" : "  (not selectable)") << "\n";

    // EXAMINE is SELECT without write access: reading leaves \Seen alone.
    auto inbox = client.examine("INBOX");
    if (!inbox) {
        std::cerr << "examine: " << inbox.message() << "\n";
        return 1;
    }
    std::cout << "INBOX: " << inbox->exists << " messages\n";

    auto uids = client.search("ALL");
    if (!uids) {
        std::cerr << "search: " << uids.message() << "\n";
        return 1;
    }
    const std::vector<uint32_t>& all = uids.value();
    for (size_t i = all.size() > 5 ? all.size() - 5 : 0; i < all.size(); ++i) {
        // Without attachments: only the header and the text travel.
        auto msg = client.fetchMessage(all[i], true);
        if (!msg) {
            std::cerr << "fetch " << all[i] << ": " << msg.message() << "\n";
            continue;
        }
        std::cout << "  " << all[i] << "  " << headerField(msg->mime, "Subject") << "\n";
    }

    if (auto st = client.logout(); !st) std::cerr << "logout: " << st.message() << "\n";
    return 0;
}
