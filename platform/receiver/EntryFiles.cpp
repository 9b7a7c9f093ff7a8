// platform/receiver/EntryFiles.cpp: files inside an entry, through the
// directory's descriptor and never through a link.
#include "platform/receiver/EntryFiles.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/receiver/Descriptor.h"
#include "platform/receiver/MsgEntryImpl.h"

namespace
{

std::string SystemCause(const std::string& what, const std::string& path)
{
    return what + " " + path + ":" + std::strerror(errno);
}

// The descriptor of path's directory, and in name the file's name: the live
// entry's pinned descriptor, checked to be still at its place when
// needInPlace, or one opened here without following a link and kept in
// opened. -1 with a cause when there is none.
int DirectoryOf(const std::string& path, bool needInPlace, Descriptor& opened, std::string& name,
                std::string& cause)
{
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos || slash + 1 == path.size()) {
        cause = "no file name in " + path;
        return -1;
    }
    name = path.substr(slash + 1);
    const std::string dir = path.substr(0, slash);
    if (const MsgEntryImpl* entry = MsgEntryImpl::Find(dir))
        return !needInPlace || entry->InPlace(cause) ? entry->DirFd() : -1;
    opened.Reset(
        ::open(dir.empty() ? "/" : dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!opened.IsValid())
        cause = SystemCause("can not open directory", dir);
    return opened.Get();
}

} // namespace

int CreateEntryFile(const std::string& path, mode_t mode, std::string& cause)
{
    Descriptor opened(-1);
    std::string name;
    const int dirFd = DirectoryOf(path, false, opened, name, cause);
    if (dirFd < 0)
        return -1;
    Descriptor file(
        ::openat(dirFd, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    if (!file.IsValid()) {
        cause = SystemCause("can not create", path);
        return -1;
    }
    // A live entry keeps a descriptor of its own for the hand-over.
    if (MsgEntryImpl* entry = MsgEntryImpl::Find(path.substr(0, path.rfind('/')))) {
        const int kept = ::fcntl(file.Get(), F_DUPFD_CLOEXEC, 0);
        if (kept < 0) {
            cause = SystemCause("can not keep", path);
            return -1;
        }
        entry->KeepFile(kept);
    }
    return file.Release();
}

bool RemoveEntryFile(const std::string& path, std::string& cause)
{
    Descriptor opened(-1);
    std::string name;
    const int dirFd = DirectoryOf(path, false, opened, name, cause);
    if (dirFd < 0)
        return false;
    if (::unlinkat(dirFd, name.c_str(), 0) == 0)
        return true;
    cause = SystemCause("can not remove", path);
    return false;
}

int OpenEntryFileForReading(const std::string& path, struct stat& status, std::string& cause)
{
    Descriptor opened(-1);
    std::string name;
    const int dirFd = DirectoryOf(path, true, opened, name, cause);
    if (dirFd < 0)
        return -1;
    // O_NONBLOCK only so that opening a planted FIFO does not wait for a
    // writer; a regular file, the only kind accepted, ignores it when read.
    Descriptor file(
        ::openat(dirFd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file.IsValid()) {
        cause = SystemCause("can not open", path);
        return -1;
    }
    if (::fstat(file.Get(), &status) != 0) {
        cause = SystemCause("can not stat", path);
        return -1;
    }
    // One link: a second name could be a file of someone else's that the
    // account linked into its entry.
    if (!S_ISREG(status.st_mode) || status.st_nlink != 1) {
        cause = path + " is not a regular file with one link";
        return -1;
    }
    return file.Release();
}
