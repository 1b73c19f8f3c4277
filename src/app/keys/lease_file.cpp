#include "app/keys/lease_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "base/clock.h"
#include "base/sleep.h"
#include "base/unique_fd.h"

namespace ox {
namespace {

constexpr const char* kName = "key-leases";
constexpr const char* kLockName = "key-leases.lock";
constexpr const char* kNewName = "key-leases.new";
constexpr const char* kDamagedName = "key-leases.damaged";
constexpr mode_t kPrivate = 0600;
/// Ten times the longest file of a full table.
constexpr size_t kLongest = 65536;

std::string failure(const char* what) {
    return std::string(what) + ": " + std::strerror(errno);
}

/// Whether `fd` is of `kind` (S_IFREG, S_IFDIR) and belongs to this user.
bool is_own(int fd, mode_t kind) {
    struct stat status {};
    return ::fstat(fd, &status) == 0 && (status.st_mode & S_IFMT) == kind &&
           status.st_uid == ::geteuid();
}

/// Opens a regular file of this user, or sets `error`. O_NONBLOCK: opening a pipe would block.
UniqueFd open_own_file(int folder, const char* name, int flags, std::string& error) {
    UniqueFd file(::openat(folder, name, flags | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, kPrivate));
    if (!file) {
        error = failure(name);
    } else if (!is_own(file.get(), S_IFREG)) {
        error = std::string(name) + ": no regular file of this user";
        file.reset();
    }
    return file;
}

bool lock_within(int fd, std::chrono::milliseconds limit) {
    constexpr std::chrono::milliseconds kPause{20};
    const auto deadline = SteadyClock::now() + limit;
    while (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR) return false;
        if (SteadyClock::now() >= deadline) return false;
        sleep_until_steady(SteadyClock::now() + kPause);
    }
    return true;
}

/// Reads the file into `text`; no file is an empty text and no error.
bool read_all(int folder, std::string& text, bool& exists, std::string& error) {
    const UniqueFd file = open_own_file(folder, kName, O_RDONLY, error);
    exists = static_cast<bool>(file);
    if (!file) {
        if (errno == ENOENT) error.clear();
        return error.empty();
    }
    std::array<char, 4096> buffer{};
    while (text.size() < kLongest) {
        const ssize_t count = ::read(file.get(), buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) error = failure(kName);
        if (count <= 0) break;
        text.append(buffer.data(), static_cast<size_t>(count));
    }
    return error.empty();
}

bool write_all(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = ::write(fd, text.data(), text.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return false;
        text.remove_prefix(static_cast<size_t>(count));
    }
    return true;
}

/// Replaces the file atomically.
bool replace(int folder, std::string_view text, std::string& error) {
    ::unlinkat(folder, kNewName, 0);  // left by an agent that was killed
    const UniqueFd file = open_own_file(folder, kNewName, O_WRONLY | O_CREAT | O_EXCL, error);
    if (!file) return false;
    if (!write_all(file.get(), text) || ::fsync(file.get()) != 0 ||
        ::renameat(folder, kNewName, folder, kName) != 0 || ::fsync(folder) != 0) {
        error = failure(kNewName);
        ::unlinkat(folder, kNewName, 0);
        return false;
    }
    return true;
}

/// Gives the damaged file a second name, which it keeps when it is replaced.
void save_damaged(int folder) {
    ::unlinkat(folder, kDamagedName, 0);
    if (::linkat(folder, kName, folder, kDamagedName, 0) != 0) {
        ::renameat(folder, kName, folder, kDamagedName);
    }
}

}  // namespace

std::string LeaseFile::path() const {
    return folder_ + "/" + kName;
}

LeaseFile::Outcome LeaseFile::update(const std::function<void(LeaseTable&)>& change) const {
    constexpr std::chrono::seconds kLockWait{1};
    Outcome outcome;
    const UniqueFd folder(::open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder) {
        outcome.error = failure("folder");
        return outcome;
    }
    if (!is_own(folder.get(), S_IFDIR)) {
        outcome.error = "folder of another user";
        return outcome;
    }
    const UniqueFd lock = open_own_file(folder.get(), kLockName, O_RDWR | O_CREAT, outcome.error);
    if (!lock) return outcome;
    if (!lock_within(lock.get(), kLockWait)) {
        outcome.error = failure(kLockName);
        return outcome;
    }
    std::string text;
    bool exists = false;
    if (!read_all(folder.get(), text, exists, outcome.error)) return outcome;
    LeaseTable table;
    if (exists) table = LeaseTable::parse(text, outcome.damaged);
    if (outcome.damaged) {
        outcome.salvaged = table.size();
        save_damaged(folder.get());
    }
    change(table);
    replace(folder.get(), table.text(), outcome.error);
    return outcome;
}

}  // namespace ox
