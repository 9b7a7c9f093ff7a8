// platform/receiver/Receiver.cpp: the library's Receiver. Owns the base
// directory's layout: entries are directories under "msgs/", the daemon
// listens on "quelt.sock". Failures are logged and answered, never thrown.
#include "platform/receiver/Receiver.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/log/LogClass.h"
#include "platform/receiver/DaemonClient.h"
#include "platform/receiver/Descriptor.h"
#include "platform/receiver/MsgEntryImpl.h"

namespace
{

using conversation::EntriesFolder;
using conversation::EntriesFolderName;
using conversation::SocketName;
// Names tried for one entry before giving up; each EEXIST moves to the next
// sequence number, so only a directory full of foreign names exhausts it.
const int MaxEntryTries = 1000;

void LogError(const std::string& text)
{
    if (Log.isErrorEnabled())
        Log.forcedLog(LogClass::Error, text);
}

// The receiver id as it appears in entry names: anything but letters, digits,
// ".", "_" and "-" becomes "_", so the id can never leave the entries folder.
std::string SanitiseId(const char* receiverId)
{
    std::string id = receiverId != nullptr ? receiverId : "";
    for (char& c : id) {
        bool kept = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    c == '.' || c == '_' || c == '-';
        if (!kept)
            c = '_';
    }
    return id;
}

// Opens the "msgs/" folder of the base directory open as baseFd, making it
// when it is missing. The folder belongs to the filter's user and to the base
// directory's group (the daemon's account in the documented set-up), mode
// 1770: the account reaches the entries handed to it and may remove them, but
// the sticky bit keeps it from renaming or removing an entry it has not been
// given yet. A folder of another owner, one without the sticky bit, with the
// set-group-id bit or writable by others is refused: whoever could make or
// rearrange it could reach entries before they are handed over. A group or
// mode of the filter's own folder that differs otherwise is brought to that
// state through the folder's descriptor.
int OpenEntriesFolder(int baseFd, const std::string& path)
{
    const mode_t mode = S_ISVTX | 0770;
    if (::mkdirat(baseFd, EntriesFolderName, mode) != 0 && errno != EEXIST) {
        LogError("can not make entries folder " + path + ":" + std::strerror(errno));
        return -1;
    }
    Descriptor entries(
        ::openat(baseFd, EntriesFolderName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat base;
    struct stat folder;
    if (!entries.IsValid() || ::fstat(baseFd, &base) != 0 ||
        ::fstat(entries.Get(), &folder) != 0) {
        LogError("can not open entries folder " + path + ":" + std::strerror(errno));
        return -1;
    }
    if (folder.st_uid != ::geteuid() || (folder.st_mode & S_ISVTX) == 0 ||
        (folder.st_mode & (S_ISGID | S_IWOTH)) != 0) {
        char found[8];
        std::snprintf(found, sizeof found, "%04o", static_cast<unsigned>(folder.st_mode & 07777));
        LogError("entries folder " + path + " is uid " + std::to_string(folder.st_uid) + " mode " +
                 found + ", not uid " + std::to_string(::geteuid()) +
                 " with the sticky bit, without set-group-id and not writable by others; "
                 "refused. Fix: mv " + path + " aside; it is made anew");
        return -1;
    }
    if (folder.st_gid != base.st_gid || (folder.st_mode & 07777) != mode) {
        // Without the group the account reaches no entry: refuse to start.
        if (::fchown(entries.Get(), static_cast<uid_t>(-1), base.st_gid) != 0 ||
            ::fchmod(entries.Get(), mode) != 0) {
            LogError("can not give entries folder " + path + " to group " +
                     std::to_string(base.st_gid) + " mode 1770:" + std::strerror(errno));
            return -1;
        }
    }
    return entries.Release();
}

class ReceiverImpl final : public RefCounted<Receiver>
{
public:
    bool Init(const char* basedir, const char* receiverId, uint32_t flags, int32_t timeout,
              int32_t one, int32_t zero1, int32_t zero2, int32_t zero3, int32_t zero4,
              int32_t zero5) override;
    MsgEntry* CreateMsgEntry() override;
    VerdictFlags ProcessMsg(MsgEntry* entry, int32_t zero1, int32_t zero2, int32_t zero3,
                            int32_t zero4) override;
    void ReportFsyncFailed(MsgEntry* entry) override;

private:
    ~ReceiverImpl() override = default;

    bool ready = false;
    std::string baseDir;  // ends with "/"
    std::string idPrefix; // the sanitised id and ".", or empty
    std::shared_ptr<const Descriptor> entries; // "msgs/", open while the Receiver lives
    int32_t timeoutSeconds = 0;
    unsigned long sequence = 0; // the last sequence number given out
};

// The flags and the further arguments carry nothing this library acts on.
bool ReceiverImpl::Init(const char* basedir, const char* receiverId, uint32_t /*flags*/,
                        int32_t timeout, int32_t /*one*/, int32_t /*zero1*/, int32_t /*zero2*/,
                        int32_t /*zero3*/, int32_t /*zero4*/, int32_t /*zero5*/)
{
    ready = false;
    std::string base = basedir != nullptr ? basedir : "";
    if (base.empty()) {
        LogError("receiver base directory not given");
        return false;
    }
    if (base.back() != '/')
        base += '/';
    if (timeout <= 0) {
        LogError("receiver timeout " + std::to_string(timeout) + " is not above 0");
        return false;
    }
    Descriptor baseFd(::open(base.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!baseFd.IsValid()) {
        LogError("receiver base directory " + base + ":" + std::strerror(errno));
        return false;
    }
    const int entriesFd = OpenEntriesFolder(baseFd.Get(), base + EntriesFolder);
    if (entriesFd < 0)
        return false;
    entries = std::make_shared<const Descriptor>(entriesFd);
    baseDir = base;
    std::string id = SanitiseId(receiverId);
    idPrefix = id.empty() ? id : id + ".";
    timeoutSeconds = timeout;
    ready = true;
    return true;
}

MsgEntry* ReceiverImpl::CreateMsgEntry()
{
    if (!ready) {
        LogError("receiver asked for an entry before Init");
        return nullptr;
    }
    timespec now;
    if (::clock_gettime(CLOCK_REALTIME, &now) != 0) {
        int error = errno;
        LogError(std::string("can not read the clock for a new entry:") + std::strerror(error));
        return nullptr;
    }
    const std::string stem = idPrefix + std::to_string(now.tv_sec) + "." +
                             std::to_string(static_cast<long>(::getpid())) + ".";
    for (int tries = 0; tries < MaxEntryTries; ++tries) {
        std::string id = stem + std::to_string(++sequence);
        std::string dir = baseDir + EntriesFolder + id;
        if (::mkdirat(entries->Get(), id.c_str(), 0770) != 0) {
            int error = errno;
            if (error == EEXIST)
                continue;
            LogError("can not make entry directory " + dir + ":" + std::strerror(error));
            return nullptr;
        }
        // From here on the entry is reached through this descriptor only. It
        // must be the directory just made: the account can make directories
        // in "msgs/", but none of the filter's user.
        Descriptor dirFd(
            ::openat(entries->Get(), id.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        struct stat status;
        if (!dirFd.IsValid() || ::fstat(dirFd.Get(), &status) != 0 ||
            status.st_uid != ::geteuid()) {
            LogError(dirFd.IsValid() && status.st_uid != ::geteuid()
                         ? "entry directory " + dir + " was replaced before it was opened"
                         : "can not open entry directory " + dir + ":" + std::strerror(errno));
            // Only an empty directory goes; whatever else holds the name stays.
            (void)::unlinkat(entries->Get(), id.c_str(), AT_REMOVEDIR);
            return nullptr;
        }
        return MakeRefCounted<MsgEntryImpl>(std::move(id), std::move(dir), entries,
                                            dirFd.Release(), status);
    }
    LogError("can not make entry directory " + baseDir + EntriesFolder + stem +
             "*: " + std::to_string(MaxEntryTries) + " names taken");
    return nullptr;
}

VerdictFlags ReceiverImpl::ProcessMsg(MsgEntry* entry, int32_t /*zero1*/, int32_t /*zero2*/,
                                      int32_t /*zero3*/, int32_t /*zero4*/)
{
    // Only entries of this library carry a note; anything else is a caller's
    // error, answered like a failed conversation.
    auto* ours = dynamic_cast<MsgEntryImpl*>(entry);
    if (!ready || ours == nullptr) {
        LogError(ready ? "receiver given an entry it did not make"
                       : "receiver asked for a verdict before Init");
        return VerdictDaemonError;
    }
    std::string note;
    VerdictFlags flags = AskDaemon(baseDir + SocketName, ours->GetDir(), timeoutSeconds, note);
    ours->SetReplyText(std::move(note));
    return flags;
}

void ReceiverImpl::ReportFsyncFailed(MsgEntry* entry)
{
    if (ready && entry != nullptr)
        ReportFsyncFailure(baseDir + SocketName, entry->GetDir(), timeoutSeconds);
}

} // namespace

extern "C" Receiver* CreateReceiver()
{
    return MakeRefCounted<ReceiverImpl>();
}
