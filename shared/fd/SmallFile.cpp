// shared/fd/SmallFile.cpp: fstat judges the descriptor that was opened, so
// the name cannot be swapped between the check and the read.
#include "shared/fd/SmallFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace
{

std::string Cause(const std::string& what, const std::string& path)
{
    const int error = errno;
    return what + " " + path + " error:" + std::strerror(error);
}

} // namespace

std::string OpenSmallFile(int dirFd, const std::string& path, const char* name, std::size_t maxSize,
                          bool missingOk, Fd& file, struct stat& status)
{
    file = Fd(::openat(dirFd, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file.IsValid())
        return missingOk && errno == ENOENT ? "" : Cause("open", path + "/" + name);
    if (::fstat(file.Get(), &status) != 0)
        return Cause("fstat", path + "/" + name);
    if (!S_ISREG(status.st_mode) || status.st_nlink != 1)
        return path + "/" + name + " is not a regular file with one link";
    if (static_cast<std::size_t>(status.st_size) > maxSize)
        return path + "/" + name + " is over " + std::to_string(maxSize) + " bytes";
    return "";
}

std::string ReadSmallFile(int fd, const std::string& path, std::size_t maxSize, std::string& text)
{
    char block[8192];
    for (;;) {
        const ssize_t count = ::read(fd, block, sizeof block);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return Cause("read", path);
        if (count == 0)
            return "";
        text.append(block, static_cast<std::size_t>(count));
        if (text.size() > maxSize)
            return path + " grew over " + std::to_string(maxSize) + " bytes";
    }
}

std::string ReadSmallFileAt(int dirFd, const std::string& path, const char* name,
                            std::size_t maxSize, std::string& text)
{
    Fd file;
    struct stat status {
    };
    const std::string fault = OpenSmallFile(dirFd, path, name, maxSize, false, file, status);
    return fault.empty() ? ReadSmallFile(file.Get(), path + "/" + name, maxSize, text) : fault;
}
