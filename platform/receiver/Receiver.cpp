// platform/receiver/Receiver.cpp: the library's Receiver. Owns the base
// directory's layout: entries are directories under "msgs/", the daemon
// listens on "quelt.sock". Failures are logged and answered, never thrown.
#include "platform/receiver/Receiver.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/log/LogClass.h"
#include "platform/receiver/DaemonClient.h"
#include "platform/receiver/MsgEntryImpl.h"

namespace
{

const char* const EntriesFolder = "msgs/";
const char* const SocketName = "quelt.sock";
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

bool IsDirectory(const std::string& path, int& error)
{
    struct stat status;
    if (::stat(path.c_str(), &status) != 0) {
        error = errno;
        return false;
    }
    error = ENOTDIR;
    return S_ISDIR(status.st_mode);
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

private:
    ~ReceiverImpl() override = default;

    bool ready = false;
    std::string baseDir;  // ends with "/"
    std::string idPrefix; // the sanitised id and ".", or empty
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
    int error = 0;
    if (!IsDirectory(base, error)) {
        LogError("receiver base directory " + base + ":" + std::strerror(error));
        return false;
    }
    const std::string entries = base + EntriesFolder;
    if (::mkdir(entries.c_str(), 0770) != 0) {
        error = errno;
        if (error != EEXIST || !IsDirectory(entries, error)) {
            LogError("can not make entries folder " + entries + ":" + std::strerror(error));
            return false;
        }
    }
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
        if (::mkdir(dir.c_str(), 0770) == 0)
            return MakeRefCounted<MsgEntryImpl>(std::move(id), std::move(dir));
        int error = errno;
        if (error != EEXIST) {
            LogError("can not make entry directory " + dir + ":" + std::strerror(error));
            return nullptr;
        }
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

} // namespace

extern "C" Receiver* CreateReceiver()
{
    return MakeRefCounted<ReceiverImpl>();
}
