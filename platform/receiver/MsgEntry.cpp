// platform/receiver/MsgEntry.cpp: one message's entry directory: handing it
// to the daemon's account and withdrawing it. Failures are logged at warn level
// and returned; nothing here throws.
#include "platform/receiver/MsgEntryImpl.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include <boost/filesystem/operations.hpp>

#include "platform/log/LogClass.h"
#include "platform/receiver/ConfHolderShared.h"
#include "platform/receiver/Descriptor.h"

namespace
{

// The envelope file that MailBase::SaveEnvelope writes into an entry.
const char* const EnvelopeFilename = ".envelope";

void WarnOwner(const std::string& path, int32_t uid, int32_t gid, int error)
{
    if (Log.isWarnEnabled())
        Log.forcedLog(LogClass::Warn, "can not give " + path + " to " + std::to_string(uid) + ":" +
                                          std::to_string(gid) + ":" + std::strerror(error));
}

} // namespace

MsgEntryImpl::MsgEntryImpl(std::string id, std::string dir) : id(std::move(id)), dir(std::move(dir))
{
}

bool MsgEntryImpl::SetOwner(int32_t uid, int32_t gid)
{
    // The files are changed relative to the directory and without following
    // links: a link planted in the entry must not hand some other file over.
    Descriptor dirFd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!dirFd.IsValid()) {
        int error = errno;
        WarnOwner(dir, uid, gid, error);
        return false;
    }
    if (::fchown(dirFd.Get(), static_cast<uid_t>(uid), static_cast<gid_t>(gid)) != 0) {
        int error = errno;
        WarnOwner(dir, uid, gid, error);
        return false;
    }
    for (const std::string& name :
         {std::string(EnvelopeFilename), ConfHolderShared::GetMsgFilename()}) {
        if (::fchownat(dirFd.Get(), name.c_str(), static_cast<uid_t>(uid), static_cast<gid_t>(gid),
                       AT_SYMLINK_NOFOLLOW) != 0) {
            int error = errno;
            if (error == ENOENT)
                continue; // not written for this message; nothing to hand over
            WarnOwner(dir + "/" + name, uid, gid, error);
            return false;
        }
    }
    return true;
}

bool MsgEntryImpl::Remove()
{
    // The usual entry holds just the two files the filter wrote: three calls
    // remove it. Anything the daemon added is left to the tree walk.
    for (const std::string& name :
         {std::string(EnvelopeFilename), ConfHolderShared::GetMsgFilename()}) {
        const std::string path = dir + "/" + name;
        if (::unlink(path.c_str()) != 0 && errno != ENOENT)
            break; // the walk below meets the same file and reports it
    }
    if (::rmdir(dir.c_str()) == 0 || errno == ENOENT)
        return true;
    boost::system::error_code error;
    boost::filesystem::remove_all(dir, error);
    if (error) {
        if (Log.isWarnEnabled())
            Log.forcedLog(LogClass::Warn, "can not remove entry " + dir + ":" + error.message());
        return false;
    }
    return true;
}
