// adapter/LeftEntries.cpp: the sweep after a filter died in a job.
#include "adapter/LeftEntries.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "shared/conversation/Conversation.h"
#include "shared/fd/EntryTree.h"
#include "shared/fd/Fd.h"

namespace
{

// The record the daemon writes into an entry that the filter keeps.
const char* const DecisionName = ".decision";

// text as a number when it is 1 to 18 decimal digits.
bool Number(const std::string& text, long long& value)
{
    if (text.empty() || text.size() > 18 || text.find_first_not_of("0123456789") != text.npos)
        return false;
    value = std::stoll(text);
    return true;
}

// The seconds and process id of an entry name "[ID.]SECONDS.PID.SEQUENCE";
// false for any other name.
bool ParseEntryName(const std::string& name, long long& seconds, long long& pid)
{
    const std::size_t last = name.rfind('.');
    if (last == std::string::npos || last == 0)
        return false;
    const std::size_t middle = name.rfind('.', last - 1);
    if (middle == std::string::npos || middle == 0)
        return false;
    const std::size_t first = name.rfind('.', middle - 1);
    const std::size_t from = first == std::string::npos ? 0 : first + 1;
    long long sequence;
    return Number(name.substr(from, middle - from), seconds) &&
           Number(name.substr(middle + 1, last - middle - 1), pid) &&
           Number(name.substr(last + 1), sequence);
}

[[noreturn]] void ThrowSystem(const std::string& what)
{
    const int error = errno;
    throw std::domain_error(what + " error:" + std::strerror(error));
}

} // namespace

LeftEntriesSweep RemoveLeftEntries(const std::string& basedir, pid_t filter, time_t jobStart)
{
    LeftEntriesSweep sweep;
    const std::string msgs = basedir + conversation::EntriesFolderName;
    try {
        Fd msgsFd(::open(msgs.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!msgsFd.IsValid()) {
            if (errno == ENOENT)
                return sweep; // the filter never made one
            ThrowSystem("open " + msgs);
        }
        // The filter works only in a folder of its own user; another is
        // none of its entries.
        struct stat folder;
        if (::fstat(msgsFd.Get(), &folder) != 0)
            ThrowSystem("stat " + msgs);
        if (folder.st_uid != ::geteuid())
            throw std::logic_error(msgs + " is uid " + std::to_string(folder.st_uid) +
                                   ", not the filter's; not swept");
        for (const std::string& name : ListNames(msgsFd.Get(), msgs)) {
            long long seconds, pid;
            if (!ParseEntryName(name, seconds, pid) || pid != filter || seconds < jobStart)
                continue;
            const std::string path = msgs + "/" + name;
            // A kept entry (the daemon's answer came and was not a pass) stays
            // for the quarantine.
            Fd entry(::openat(msgsFd.Get(), name.c_str(),
                              O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            struct stat decision;
            if (!entry.IsValid() ||
                ::fstatat(entry.Get(), DecisionName, &decision, AT_SYMLINK_NOFOLLOW) == 0 ||
                errno != ENOENT)
                continue;
            try {
                RemoveEntry(msgsFd.Get(), name, path);
                sweep.removed.push_back(name);
            } catch (const std::exception& failure) {
                sweep.faults.push_back(failure.what());
            }
        }
    } catch (const std::exception& failure) {
        sweep.faults.push_back(failure.what());
    }
    return sweep;
}
