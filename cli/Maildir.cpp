#include "Maildir.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "CliError.h"

namespace zr {
namespace cli {

namespace {

const char kStateFile[] = ".zrimap-backup";
const char kNameTag[] = ".zrimap";

std::string errnoText() { return std::strerror(errno); }

void makeDir(const std::string& path) {
    if (mkdir(path.c_str(), 0700) == 0 || errno == EEXIST) {
        struct stat st {};
        if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return;
        localIoError(path + " exists and is not a directory");
    }
    localIoError("cannot create directory " + path + ": " + errnoText());
}

void makeDirs(const std::string& path) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
        std::string parent = path.substr(0, slash);
        struct stat st {};
        if (stat(parent.c_str(), &st) != 0) makeDir(parent);
    }
    makeDir(path);
}

std::vector<std::string> listDir(const std::string& path) {
    std::vector<std::string> names;
    DIR* d = opendir(path.c_str());
    if (!d) localIoError("cannot read directory " + path + ": " + errnoText());
    while (dirent* e = readdir(d)) {
        std::string n = e->d_name;
        if (n != "." && n != "..") names.push_back(n);
    }
    closedir(d);
    return names;
}

void writeAll(int fd, const uint8_t* data, size_t size, const std::string& path) {
    while (size > 0) {
        ssize_t n = ::write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR) continue;
            localIoError("cannot write " + path + ": " + errnoText());
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
}

bool parseDigits(const std::string& s, size_t& pos, size_t maxDigits, uint64_t& out) {
    size_t start = pos;
    out = 0;
    while (pos < s.size() && s[pos] >= '0' && s[pos] <= '9' && pos - start < maxDigits) {
        out = out * 10 + static_cast<uint64_t>(s[pos] - '0');
        ++pos;
    }
    return pos > start;
}

std::string stateText(const BackupState& st) {
    return "zrimap backup\nmailbox " + st.mailbox + "\nuidvalidity " + std::to_string(st.uidValidity) + "\n";
}

}  // namespace

std::string maildirFlagLetters(const Flags& flags) {
    // Maildir wants the letters in ASCII order.
    static const std::pair<const char*, char> kLetters[] = {
        {"\\Draft", 'D'}, {"\\Flagged", 'F'}, {"\\Answered", 'R'}, {"\\Seen", 'S'}, {"\\Deleted", 'T'}};
    std::string letters;
    for (const auto& [flag, letter] : kLetters) {
        for (const std::string& f : flags) {
            if (strcasecmp(f.c_str(), flag) == 0) {
                letters += letter;
                break;
            }
        }
    }
    return letters;
}

std::string maildirFileName(uint32_t uid, uint32_t uidValidity, const Flags& flags) {
    char head[64];
    std::snprintf(head, sizeof head, "%010u.%u", uid, uidValidity);
    return std::string(head) + kNameTag + ":2," + maildirFlagLetters(flags);
}

std::optional<StoredMessageName> parseMaildirFileName(const std::string& name) {
    size_t pos = 0;
    uint64_t uid = 0, uidValidity = 0;
    if (!parseDigits(name, pos, 10, uid) || uid == 0 || uid > 0xFFFFFFFFu) return std::nullopt;
    if (pos >= name.size() || name[pos++] != '.') return std::nullopt;
    if (!parseDigits(name, pos, 10, uidValidity) || uidValidity > 0xFFFFFFFFu) return std::nullopt;
    if (name.compare(pos, std::strlen(kNameTag), kNameTag) != 0) return std::nullopt;
    pos += std::strlen(kNameTag);
    if (pos != name.size() && name[pos] != ':') return std::nullopt;
    return StoredMessageName{static_cast<uint32_t>(uid), static_cast<uint32_t>(uidValidity)};
}

std::optional<std::time_t> parseInternalDate(const std::string& text) {
    static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    std::string s = text;
    while (!s.empty() && s.front() == ' ') s.erase(s.begin());
    size_t pos = 0;
    uint64_t day = 0, year = 0, hh = 0, mm = 0, ss = 0, zone = 0;
    if (!parseDigits(s, pos, 2, day) || pos >= s.size() || s[pos++] != '-') return std::nullopt;
    if (pos + 4 > s.size()) return std::nullopt;
    std::string mon = s.substr(pos, 3);
    pos += 3;
    int month = -1;
    for (int i = 0; i < 12; ++i) {
        if (strcasecmp(mon.c_str(), kMonths[i]) == 0) month = i;
    }
    if (month < 0 || s[pos++] != '-') return std::nullopt;
    if (!parseDigits(s, pos, 4, year) || pos >= s.size() || s[pos++] != ' ') return std::nullopt;
    if (!parseDigits(s, pos, 2, hh) || pos >= s.size() || s[pos++] != ':') return std::nullopt;
    if (!parseDigits(s, pos, 2, mm) || pos >= s.size() || s[pos++] != ':') return std::nullopt;
    if (!parseDigits(s, pos, 2, ss) || pos >= s.size() || s[pos++] != ' ') return std::nullopt;
    if (pos >= s.size() || (s[pos] != '+' && s[pos] != '-')) return std::nullopt;
    int sign = s[pos++] == '-' ? -1 : 1;
    size_t zoneStart = pos;
    if (!parseDigits(s, pos, 4, zone) || pos - zoneStart != 4 || pos != s.size()) return std::nullopt;
    if (day < 1 || day > 31 || hh > 23 || mm > 59 || ss > 60 || year < 1970) return std::nullopt;

    struct tm tm {};
    tm.tm_year = static_cast<int>(year) - 1900;
    tm.tm_mon = month;
    tm.tm_mday = static_cast<int>(day);
    tm.tm_hour = static_cast<int>(hh);
    tm.tm_min = static_cast<int>(mm);
    tm.tm_sec = static_cast<int>(ss);
    std::time_t utc = timegm(&tm);
    long offset = static_cast<long>(zone / 100 * 3600 + zone % 100 * 60) * sign;
    return utc - offset;
}

std::optional<BackupState> readBackupState(const std::string& dir) {
    std::ifstream in(dir + "/" + kStateFile);
    if (!in) return std::nullopt;
    BackupState st;
    std::string line;
    bool sawHeader = false, sawValidity = false;
    while (std::getline(in, line)) {
        if (line == "zrimap backup") {
            sawHeader = true;
        } else if (line.rfind("mailbox ", 0) == 0) {
            st.mailbox = line.substr(8);
        } else if (line.rfind("uidvalidity ", 0) == 0) {
            size_t pos = 12;
            uint64_t v = 0;
            if (parseDigits(line, pos, 10, v) && pos == line.size() && v <= 0xFFFFFFFFu) {
                st.uidValidity = static_cast<uint32_t>(v);
                sawValidity = true;
            }
        }
    }
    if (!sawHeader || !sawValidity)
        failed(dir + "/" + kStateFile + " is damaged; restore it or back up into a new directory");
    return st;
}

MaildirBackup::MaildirBackup(std::string dir) : m_dir(std::move(dir)) {
    while (m_dir.size() > 1 && m_dir.back() == '/') m_dir.pop_back();
}

void MaildirBackup::prepare(const std::string& mailbox, uint32_t uidValidity) {
    m_uidValidity = uidValidity;
    makeDirs(m_dir);
    for (const char* sub : {"cur", "new", "tmp"}) makeDir(m_dir + "/" + sub);

    std::optional<BackupState> state = readBackupState(m_dir);
    if (state && state->mailbox != mailbox)
        failed(m_dir + " is a backup of \"" + state->mailbox + "\", not of \"" + mailbox +
               "\"; use one directory per mailbox");
    auto refuse = [&](uint32_t before) {
        failed("the UIDVALIDITY of \"" + mailbox + "\" changed from " + std::to_string(before) + " to " +
               std::to_string(uidValidity) + ": the server renumbered its messages, so " + m_dir +
               " cannot be resumed; back up into a new directory (the old one stays a complete Maildir)");
    };
    if (state && state->uidValidity != uidValidity) refuse(state->uidValidity);

    m_stored.clear();
    for (const char* sub : {"cur", "new"}) {
        for (const std::string& name : listDir(m_dir + "/" + sub)) {
            auto parsed = parseMaildirFileName(name);
            if (!parsed) continue;  // a Maildir may hold other messages too; they are not ours to judge
            if (parsed->uidValidity != uidValidity) refuse(parsed->uidValidity);
            m_stored.insert(parsed->uid);
        }
    }

    if (!state) {
        std::string path = m_dir + "/" + kStateFile;
        std::string tmp = path + ".tmp";
        {
            std::ofstream out(tmp, std::ios::trunc);
            out << stateText(BackupState{mailbox, uidValidity});
            out.flush();
            if (!out) localIoError("cannot write " + tmp);
        }
        if (std::rename(tmp.c_str(), path.c_str()) != 0) localIoError("cannot write " + path + ": " + errnoText());
    }

    // Only our own half-written files; another program's deliveries in tmp/ are left alone.
    m_removedLeftovers = 0;
    for (const std::string& name : listDir(m_dir + "/tmp")) {
        if (!parseMaildirFileName(name)) continue;
        std::string path = m_dir + "/tmp/" + name;
        if (unlink(path.c_str()) != 0) localIoError("cannot remove leftover " + path + ": " + errnoText());
        ++m_removedLeftovers;
    }
}

std::string MaildirBackup::store(const Message& message) {
    std::string name = maildirFileName(message.uid, m_uidValidity, message.flags);
    std::string tmpPath = m_dir + "/tmp/" + name;
    std::string finalPath = m_dir + "/cur/" + name;

    int fd = ::open(tmpPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) localIoError("cannot create " + tmpPath + ": " + errnoText());
    try {
        const uint8_t* data = message.mime.data();
        size_t size = message.mime.size();
        if (m_crashAfter && m_storedThisRun == *m_crashAfter) {
            writeAll(fd, data, size / 2, tmpPath);
            fsync(fd);
            raise(SIGKILL);
        }
        writeAll(fd, data, size, tmpPath);
        if (auto when = parseInternalDate(message.internalDate)) {
            // Mail readers show a Maildir message's file time as its arrival time.
            struct timespec times[2];
            times[0].tv_sec = times[1].tv_sec = *when;
            times[0].tv_nsec = times[1].tv_nsec = 0;
            futimens(fd, times);
        }
        if (fsync(fd) != 0) localIoError("cannot write " + tmpPath + ": " + errnoText());
    } catch (...) {
        ::close(fd);
        unlink(tmpPath.c_str());
        throw;
    }
    if (::close(fd) != 0) {
        unlink(tmpPath.c_str());
        localIoError("cannot write " + tmpPath + ": " + errnoText());
    }
    if (std::rename(tmpPath.c_str(), finalPath.c_str()) != 0) {
        int saved = errno;
        unlink(tmpPath.c_str());
        localIoError("cannot move " + tmpPath + " into cur/: " + std::strerror(saved));
    }
    m_stored.insert(message.uid);
    ++m_storedThisRun;
    return finalPath;
}

void MaildirBackup::syncDirectory() {
    int fd = ::open((m_dir + "/cur").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    fsync(fd);
    ::close(fd);
}

}  // namespace cli
}  // namespace zr
