// platform/log/LogFileStream.cpp: the log file's checks, through descriptors
// (the directory is opened first, the file in it), and its output stream.
#include "platform/log/LogFileStream.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <log4cxx/helpers/bytebuffer.h>
#include <log4cxx/helpers/exception.h>

namespace
{

using namespace log4cxx; // the back end's class macros name its types unqualified

std::string SystemCause(const std::string& what, const std::string& path)
{
    return what + " " + path + ":" + std::strerror(errno);
}

// Closes the descriptor it holds unless released.
class OpenedFd
{
public:
    explicit OpenedFd(int fd) : fd(fd) {}
    ~OpenedFd()
    {
        if (fd >= 0)
            (void)::close(fd); // a refused or read-only descriptor: nothing to lose
    }
    OpenedFd(const OpenedFd&) = delete;
    OpenedFd& operator=(const OpenedFd&) = delete;
    int Get() const { return fd; }
    int Release()
    {
        const int held = fd;
        fd = -1;
        return held;
    }

private:
    int fd;
};

class DescriptorStream final : public log4cxx::helpers::OutputStream
{
public:
    DECLARE_ABSTRACT_LOG4CXX_OBJECT(DescriptorStream)
    BEGIN_LOG4CXX_CAST_MAP()
    LOG4CXX_CAST_ENTRY(DescriptorStream)
    LOG4CXX_CAST_ENTRY_CHAIN(OutputStream)
    END_LOG4CXX_CAST_MAP()

    explicit DescriptorStream(int fd) : fd(fd) {}
    ~DescriptorStream() override { CloseFd(); }

    void close(log4cxx::helpers::Pool&) override { CloseFd(); }
    // Every write goes straight to the file: nothing is buffered here.
    void flush(log4cxx::helpers::Pool&) override {}
    void write(log4cxx::helpers::ByteBuffer& buffer, log4cxx::helpers::Pool&) override
    {
        while (buffer.remaining() > 0) {
            const ssize_t count = ::write(fd, buffer.current(), buffer.remaining());
            if (count < 0 && errno == EINTR)
                continue;
            if (count <= 0)
                throw log4cxx::helpers::IOException(count < 0 ? errno : EIO);
            buffer.position(buffer.position() + static_cast<std::size_t>(count));
        }
    }

private:
    void CloseFd()
    {
        if (fd >= 0)
            (void)::close(fd); // every line was written whole before; a late error loses none
        fd = -1;
    }

    int fd;
};

} // namespace

IMPLEMENT_LOG4CXX_OBJECT(DescriptorStream)

int OpenLogFile(const std::string& path, std::string& cause)
{
    const std::size_t slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "."
                            : slash == 0               ? "/"
                                                       : path.substr(0, slash);
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    OpenedFd dirFd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat status;
    if (dirFd.Get() < 0 || ::fstat(dirFd.Get(), &status) != 0) {
        cause = SystemCause("can not open log directory", dir);
        return -1;
    }
    if ((status.st_uid != 0 && status.st_uid != ::geteuid()) || (status.st_mode & 022) != 0) {
        cause = "log directory " + dir + " may be written by others than root and uid " +
                std::to_string(::geteuid()) + "; log to syslog or to a directory like /var/log";
        return -1;
    }
    OpenedFd file(::openat(
        dirFd.Get(), name.c_str(),
        O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0640));
    if (file.Get() < 0 || ::fstat(file.Get(), &status) != 0) {
        cause = SystemCause("can not open log file", path);
        return -1;
    }
    // A character device (/dev/null: log nothing) can only be root's making.
    const bool device = S_ISCHR(status.st_mode) && status.st_uid == 0;
    if (!device &&
        (!S_ISREG(status.st_mode) || status.st_uid != ::geteuid() || status.st_nlink != 1)) {
        cause = "log file " + path + " is not a regular file of uid " +
                std::to_string(::geteuid()) + " with one link, nor root's character device";
        return -1;
    }
    const int flags = ::fcntl(file.Get(), F_GETFL);
    if (flags < 0 || ::fcntl(file.Get(), F_SETFL, flags & ~O_NONBLOCK) != 0) {
        cause = SystemCause("can not set up log file", path);
        return -1;
    }
    return file.Release();
}

log4cxx::helpers::OutputStreamPtr MakeDescriptorStream(int fd)
{
    return std::make_shared<DescriptorStream>(fd);
}
