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

#include "shared/fd/SmallFile.h"

namespace
{

const char* const MsgName = ".msg";
const char* const NewMsgName = ".msg.refd-new";
const char* const EnvelopeName = ".envelope";
// Far above any envelope the filter writes (thousands of recipients).
constexpr std::size_t MaxEnvelopeSize = 1024 * 1024;

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

MessageEnvelope Entry::ReadEnvelope() const
{
    const std::string path = dir + "/" + EnvelopeName;
    std::string text;
    const std::string fault =
        ReadSmallFileAt(dirFd.Get(), dir, EnvelopeName, MaxEnvelopeSize, text);
    if (!fault.empty())
        throw std::domain_error(fault);
    MessageEnvelope envelope;
    envelope.queueId = dir.substr(dir.find_last_of('/', dir.size() - 2) + 1);
    if (!envelope.queueId.empty() && envelope.queueId.back() == '/')
        envelope.queueId.pop_back();
    bool sawSender = false;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = text.find('\n', start);
        if (end == std::string::npos)
            throw std::logic_error(path + " ends inside a line");
        const std::string line = text.substr(start, end - start);
        start = end + 1;
        for (char c : line)
            if ((c >= 0 && c < 0x20) || c == 0x7f)
                throw std::logic_error(path + " has a control byte in an address");
        if (line.compare(0, 5, "from ") == 0 && !sawSender) {
            envelope.sender = line.substr(5);
            sawSender = true;
        } else if (line.compare(0, 3, "to ") == 0) {
            envelope.recipients.push_back(line.substr(3));
        } else {
            throw std::logic_error(path + " has a line that is not 'from' or 'to'");
        }
    }
    if (!sawSender)
        throw std::logic_error(path + " names no sender");
    return envelope;
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
