// `zrimap backup`: a mailbox copied into a Maildir, resumable.
//
// Layout: DIR/{cur,new,tmp} plus DIR/.zrimap-backup, which records the
// mailbox and its UIDVALIDITY. Each message is named
//   <UID, 10 digits>.<UIDVALIDITY>.zrimap:2,<Maildir flags>
// so the UIDs already stored are known exactly from the names alone (a mail
// reader may move files from new/ to cur/ or change the flags after the
// colon; both are still recognised). A message is written to tmp/, synced,
// then renamed into cur/: an interruption leaves at most a stray file in
// tmp/, which the next run removes. A changed UIDVALIDITY means the server
// renumbered the mailbox; the backup then refuses rather than mixing two
// numberings in one directory.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "zrimap/client.h"

namespace zr {
namespace cli {

struct StoredMessageName {
    uint32_t uid = 0;
    uint32_t uidValidity = 0;
};

std::string maildirFileName(uint32_t uid, uint32_t uidValidity, const Flags& flags);
std::optional<StoredMessageName> parseMaildirFileName(const std::string& name);
// The ":2,..." letters in Maildir's order (D F P R S T); keywords have no letter.
std::string maildirFlagLetters(const Flags& flags);
// "17-Jul-1996 02:44:25 -0700" as seconds since the epoch.
std::optional<std::time_t> parseInternalDate(const std::string& text);

struct BackupState {
    std::string mailbox;
    uint32_t uidValidity = 0;
};

class MaildirBackup {
public:
    explicit MaildirBackup(std::string dir);

    // Creates the Maildir when needed, checks (or records) mailbox and
    // UIDVALIDITY, removes leftovers in tmp/, and lists what is stored.
    // Throws CliError: kExitFailed on a UIDVALIDITY or mailbox mismatch,
    // kExitLocalIo when the directory cannot be used.
    void prepare(const std::string& mailbox, uint32_t uidValidity);

    const std::set<uint32_t>& storedUids() const { return m_stored; }
    // Only after prepare(); the leftovers it removed from tmp/.
    int removedLeftovers() const { return m_removedLeftovers; }

    // Writes one message; returns its final path.
    std::string store(const Message& message);
    // Makes the renames durable; once per run is enough.
    void syncDirectory();

    // A test hook (ZRIMAP_TEST_BACKUP_CRASH_AFTER=N): the process kills
    // itself with SIGKILL halfway through writing the message after the
    // N-th, the worst moment an interruption can hit.
    void setCrashAfter(std::optional<int> n) { m_crashAfter = n; }

private:
    std::string m_dir;
    uint32_t m_uidValidity = 0;
    std::set<uint32_t> m_stored;
    int m_removedLeftovers = 0;
    int m_storedThisRun = 0;
    std::optional<int> m_crashAfter;
};

std::optional<BackupState> readBackupState(const std::string& dir);

}  // namespace cli
}  // namespace zr
