// daemon/Sweeper.cpp: a walk through directory descriptors
// (openat, fstatat and unlinkat with O_NOFOLLOW / AT_SYMLINK_NOFOLLOW): a
// link inside an entry is removed as a link, whatever it points to.
#include "Sweeper.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "DaemonLog.h"
#include "shared/fd/Fd.h"
#include "Metrics.h"

namespace
{

constexpr int SweepIntervalMs = 3600 * 1000;
constexpr int CensusIntervalMs = 60 * 1000;
// The filter makes entries one level deep; deeper trees are not its.
constexpr int MaxDepth = 4;

[[noreturn]] void ThrowSystem(const std::string& what)
{
    int error = errno;
    throw std::domain_error(what + " error:" + std::strerror(error));
}

} // namespace

std::vector<std::string> ListNames(int dirFd, const std::string& path)
{
    int copy = ::dup(dirFd);
    if (copy < 0)
        ThrowSystem("dup " + path);
    DIR* dir = ::fdopendir(copy);
    if (dir == nullptr) {
        int error = errno;
        (void)::close(copy); // not taken over by the stream
        errno = error;
        ThrowSystem("opendir " + path);
    }
    std::vector<std::string> names;
    errno = 0;
    while (const dirent* found = ::readdir(dir)) {
        std::string name = found->d_name;
        if (name != "." && name != "..")
            names.push_back(name);
    }
    int error = errno;
    (void)::closedir(dir); // read-only stream: nothing to lose
    if (error != 0) {
        errno = error;
        ThrowSystem("readdir " + path);
    }
    return names;
}

namespace
{

// Removes name (a directory) under parentFd with everything in it.
void RemoveTree(int parentFd, const std::string& name, const std::string& path, int depth)
{
    if (depth > MaxDepth)
        throw std::logic_error(path + " is nested too deep");
    Fd dirFd(::openat(parentFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!dirFd.IsValid())
        ThrowSystem("open " + path);
    for (const std::string& child : ListNames(dirFd.Get(), path)) {
        struct stat status;
        if (::fstatat(dirFd.Get(), child.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
            ThrowSystem("stat " + path + "/" + child);
        if (S_ISDIR(status.st_mode))
            RemoveTree(dirFd.Get(), child, path + "/" + child, depth + 1);
        else if (::unlinkat(dirFd.Get(), child.c_str(), 0) != 0)
            ThrowSystem("unlink " + path + "/" + child);
    }
    if (::unlinkat(parentFd, name.c_str(), AT_REMOVEDIR) != 0)
        ThrowSystem("rmdir " + path);
}

} // namespace

void RemoveEntry(int msgsFd, const std::string& name, const std::string& path)
{
    RemoveTree(msgsFd, name, path, 0);
}

void SweepKeptEntries(const std::string& msgsDir, int keepHours, Metrics* metrics)
{
    std::size_t keptCount = 0;
    time_t oldestAge = 0;
    // The sweep's driver: what fails is logged, the daemon serves on.
    try {
        Fd msgsFd(::open(msgsDir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!msgsFd.IsValid()) {
            if (errno == ENOENT)
                return; // no message has come yet
            ThrowSystem("open " + msgsDir);
        }
        const time_t now = ::time(nullptr);
        const uid_t self = ::geteuid();
        for (const std::string& name : ListNames(msgsFd.Get(), msgsDir)) {
            const std::string path = msgsDir + "/" + name;
            struct stat status;
            if (::fstatat(msgsFd.Get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
                continue; // gone meanwhile: the filter removes passed entries
            if (!S_ISDIR(status.st_mode) || status.st_uid != self)
                continue;
            const time_t changed = std::max(status.st_mtime, status.st_ctime);
            const long hours = static_cast<long>((now - changed) / 3600);
            if (now - changed < static_cast<time_t>(keepHours) * 3600) {
                ++keptCount;
                oldestAge = std::max(oldestAge, now - changed);
                continue;
            }
            try {
                RemoveTree(msgsFd.Get(), name, path, 0);
                Say(LOG_INFO,
                    "removed kept entry " + path + " (" + std::to_string(hours) + " h old)");
            } catch (const std::exception& failure) {
                Say(LOG_ERR, std::string("can not remove kept entry: ") + failure.what());
            }
        }
    } catch (const std::exception& failure) {
        Say(LOG_ERR, std::string("sweep of kept entries failed: ") + failure.what());
    }
    if (metrics != nullptr)
        metrics->KeptEntries(keptCount, std::chrono::seconds(std::max<time_t>(oldestAge, 0)));
}

void RunSweeper(std::string msgsDir, int keepHours, int stopFd, Metrics* metrics)
{
    for (;;) {
        pollfd stop = {stopFd, POLLIN, 0};
        int count = ::poll(&stop, 1, metrics != nullptr ? CensusIntervalMs : SweepIntervalMs);
        if (count > 0 || (count < 0 && errno != EINTR))
            return;
        if (count == 0)
            SweepKeptEntries(msgsDir, keepHours, metrics);
    }
}
