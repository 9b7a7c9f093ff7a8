// platform/receiver/MsgEntry.cpp: one message's entry directory: handing it
// to the daemon's account and withdrawing it, both through the directory's
// pinned descriptor and never through a link. Failures are logged at warn
// level and returned; nothing here throws.
#include "platform/receiver/MsgEntryImpl.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/log/LogClass.h"
#include "platform/receiver/ConfHolderShared.h"

namespace
{

// The envelope file that MailBase::SaveEnvelope writes into an entry.
const char* const EnvelopeFilename = ".envelope";
// The daemon's record of its answer (kept for the admin's quarantine tool).
const char* const DecisionFilename = ".decision";
// How deep a withdrawal follows directories the daemon made inside an entry,
// and how often it sweeps one directory that keeps filling up: a hostile tree
// costs a bounded number of descriptors and calls, then the entry is left.
const int MaxWalkDepth = 16;
const int MaxSweeps = 4;

void Warn(const std::string& text)
{
    if (Log.isWarnEnabled())
        Log.forcedLog(LogClass::Warn, text);
}

bool WarnOwner(const std::string& path, int32_t uid, int32_t gid, int error)
{
    Warn("can not give " + path + " to " + std::to_string(uid) + ":" + std::to_string(gid) + ":" +
         std::strerror(error));
    return false;
}

// Live entries, for MsgEntryImpl::Find. The filter has one at a time.
std::vector<MsgEntryImpl*>& LiveEntries()
{
    static std::vector<MsgEntryImpl*> entries;
    return entries;
}

// Deletes everything inside the directory open as dirFd, depth first,
// without following a link; false with errno when something stays.
bool EmptyDirectory(int dirFd, int depth)
{
    for (int sweep = 0; sweep < MaxSweeps; ++sweep) {
        // A description of its own, so that the walk starts at the front.
        int listFd = ::openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (listFd < 0)
            return false;
        DIR* list = ::fdopendir(listFd);
        if (list == nullptr) {
            int error = errno;
            (void)::close(listFd); // read-only; the walk's failure is the report
            errno = error;
            return false;
        }
        bool removedAny = false;
        bool failed = false;
        while (const dirent* item = ::readdir(list)) {
            const char* name = item->d_name;
            if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0)
                continue;
            if (::unlinkat(dirFd, name, 0) == 0) {
                removedAny = true;
                continue;
            }
            if (errno != EISDIR || depth >= MaxWalkDepth) {
                failed = true;
                continue;
            }
            Descriptor sub(::openat(dirFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            if (sub.IsValid() && EmptyDirectory(sub.Get(), depth + 1) &&
                ::unlinkat(dirFd, name, AT_REMOVEDIR) == 0)
                removedAny = true;
            else
                failed = true;
        }
        int error = errno;
        (void)::closedir(list); // read-only
        if (!failed)
            return true;
        if (!removedAny) {
            errno = error != 0 ? error : ENOTEMPTY;
            return false;
        }
    }
    errno = ENOTEMPTY;
    return false;
}

} // namespace

MsgEntryImpl::MsgEntryImpl(std::string id, std::string dir,
                           std::shared_ptr<const Descriptor> entries, int dirFd,
                           const struct stat& status)
    : id(std::move(id)), dir(std::move(dir)), entries(std::move(entries)), dirFd(dirFd),
      device(status.st_dev), inode(status.st_ino)
{
    LiveEntries().push_back(this);
}

MsgEntryImpl::~MsgEntryImpl()
{
    auto& live = LiveEntries();
    live.erase(std::remove(live.begin(), live.end(), this), live.end());
}

MsgEntryImpl* MsgEntryImpl::Find(const std::string& dir)
{
    for (MsgEntryImpl* entry : LiveEntries())
        if (entry->dir == dir)
            return entry;
    return nullptr;
}

bool MsgEntryImpl::InPlace(std::string& cause) const
{
    struct stat status;
    if (::fstatat(entries->Get(), id.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        cause = "entry " + dir + " is gone:" + std::strerror(errno);
        return false;
    }
    if (!S_ISDIR(status.st_mode) || status.st_dev != device || status.st_ino != inode) {
        cause = "entry " + dir + " was replaced";
        return false;
    }
    return true;
}

bool MsgEntryImpl::SetOwner(int32_t uid, int32_t gid)
{
    // The files first and the directory last: until the directory is the
    // account's, nothing can be put in it. Each file is the one the filter
    // created, reached through its own descriptor whatever its name is now.
    for (const Descriptor& file : files)
        if (::fchown(file.Get(), static_cast<uid_t>(uid), static_cast<gid_t>(gid)) != 0)
            return WarnOwner(dir + "/ file", uid, gid, errno);
    if (::fchown(dirFd.Get(), static_cast<uid_t>(uid), static_cast<gid_t>(gid)) != 0)
        return WarnOwner(dir, uid, gid, errno);
    return true;
}

bool MsgEntryImpl::Remove()
{
    // The usual entry holds the two files the filter wrote, and the daemon's
    // record of its answer where the daemon wrote one: four calls remove it.
    // Anything else the daemon added is left to the walk.
    for (const std::string& name : {std::string(EnvelopeFilename),
                                    ConfHolderShared::GetMsgFilename(), std::string(DecisionFilename)})
        if (::unlinkat(dirFd.Get(), name.c_str(), 0) != 0 && errno != ENOENT)
            break; // the walk below meets the same file and reports it
    // Removal by name in "msgs/" takes only an empty directory: a link
    // planted under the entry's name is never followed (ENOTDIR), and
    // whatever directory holds the name then is not emptied.
    if (::unlinkat(entries->Get(), id.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT)
        return true;
    int error = errno;
    if ((error == ENOTEMPTY || error == EEXIST) && EmptyDirectory(dirFd.Get(), 0)) {
        if (::unlinkat(entries->Get(), id.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT)
            return true;
    }
    error = errno;
    Warn("can not remove entry " + dir + ":" + std::strerror(error));
    return false;
}
