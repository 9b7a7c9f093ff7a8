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
#include "Metrics.h"
#include "shared/fd/EntryTree.h"
#include "shared/fd/Fd.h"

namespace
{

constexpr int SweepIntervalMs = 3600 * 1000;
constexpr int CensusIntervalMs = 60 * 1000;

[[noreturn]] void ThrowSystem(const std::string& what)
{
    int error = errno;
    throw std::domain_error(what + " error:" + std::strerror(error));
}

} // namespace

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
                RemoveEntry(msgsFd.Get(), name, path);
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
