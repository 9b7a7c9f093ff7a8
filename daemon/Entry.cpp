// daemon/Entry.cpp: every step through the entry's directory
// descriptor; the new ".msg" is fsync'ed and closed, each checked, before
// the rename that makes it the message.
#include "Entry.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/sendfile.h>
#include <unistd.h>

namespace
{

const char* const MsgName = ".msg";
const char* const NewMsgName = ".msg.refd-new";

[[noreturn]] void ThrowSystem(const std::string& what, const std::string& path)
{
    int error = errno;
    throw std::domain_error(what + " " + path + " error:" + std::strerror(error));
}

} // namespace

Entry::Entry(const std::string& dir)
    : dir(dir), dirFd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)), msg(-1)
{
    if (!dirFd.IsValid())
        ThrowSystem("open", dir);
    msg = Fd(::openat(dirFd.Get(), MsgName, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!msg.IsValid())
        ThrowSystem("open", dir + "/" + MsgName);
    if (::fstat(msg.Get(), &msgStatus) != 0)
        ThrowSystem("fstat", dir + "/" + MsgName);
    if (!S_ISREG(msgStatus.st_mode))
        throw std::logic_error(dir + "/" + MsgName + " is not a regular file");
}

void Entry::PrependHeaders(const std::string& lines)
{
    const std::string newPath = dir + "/" + NewMsgName;
    // A leftover of a daemon that died here; the name is the daemon's own.
    if (::unlinkat(dirFd.Get(), NewMsgName, 0) != 0 && errno != ENOENT)
        ThrowSystem("unlink", newPath);
    Fd target(::openat(dirFd.Get(), NewMsgName,
                       O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0660));
    if (!target.IsValid())
        ThrowSystem("create", newPath);
    struct Remover {
        int dirFd;
        bool armed = true;
        ~Remover()
        {
            if (armed)
                (void)::unlinkat(dirFd, NewMsgName, 0); // the old ".msg" stays as it was
        }
    } remover{dirFd.Get()};
    if (::fchmod(target.Get(), 0660) != 0 || !WriteAll(target.Get(), lines.data(), lines.size()))
        ThrowSystem("write", newPath);
    off_t offset = 0;
    const off_t size = msgStatus.st_size;
    while (offset < size) {
        ssize_t count =
            ::sendfile(target.Get(), msg.Get(), &offset, static_cast<std::size_t>(size - offset));
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            ThrowSystem("copy to", newPath);
        if (count == 0)
            throw std::logic_error(dir + "/" + MsgName + " shrank while it was copied");
    }
    if (::fsync(target.Get()) != 0 || target.Close() != 0)
        ThrowSystem("write", newPath);
    if (::renameat(dirFd.Get(), NewMsgName, dirFd.Get(), MsgName) != 0)
        ThrowSystem("rename over", dir + "/" + MsgName);
    remover.armed = false;
}
