// shared/fd/EntryTree.cpp: a walk through directory descriptors
// (openat, fstatat and unlinkat with O_NOFOLLOW / AT_SYMLINK_NOFOLLOW): a
// link inside an entry is removed as a link, whatever it points to.
#include "shared/fd/EntryTree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "shared/fd/Fd.h"

namespace
{

// The filter makes entries one level deep; deeper trees are not its.
constexpr int MaxDepth = 4;

[[noreturn]] void ThrowSystem(const std::string& what)
{
    int error = errno;
    throw std::domain_error(what + " error:" + std::strerror(error));
}

} // namespace

std::vector<std::string> ListNames(int dirFd, const std::string& path)
{
    int copy = ::dup(dirFd);
    if (copy < 0)
        ThrowSystem("dup " + path);
    DIR* dir = ::fdopendir(copy);
    if (dir == nullptr) {
        int error = errno;
        (void)::close(copy); // not taken over by the stream
        errno = error;
        ThrowSystem("opendir " + path);
    }
    std::vector<std::string> names;
    errno = 0;
    while (const dirent* found = ::readdir(dir)) {
        std::string name = found->d_name;
        if (name != "." && name != "..")
            names.push_back(name);
    }
    int error = errno;
    (void)::closedir(dir); // read-only stream: nothing to lose
    if (error != 0) {
        errno = error;
        ThrowSystem("readdir " + path);
    }
    return names;
}

namespace
{

// Removes name (a directory) under parentFd with everything in it.
void RemoveTree(int parentFd, const std::string& name, const std::string& path, int depth)
{
    if (depth > MaxDepth)
        throw std::logic_error(path + " is nested too deep");
    Fd dirFd(::openat(parentFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!dirFd.IsValid())
        ThrowSystem("open " + path);
    for (const std::string& child : ListNames(dirFd.Get(), path)) {
        struct stat status;
        if (::fstatat(dirFd.Get(), child.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
            ThrowSystem("stat " + path + "/" + child);
        if (S_ISDIR(status.st_mode))
            RemoveTree(dirFd.Get(), child, path + "/" + child, depth + 1);
        else if (::unlinkat(dirFd.Get(), child.c_str(), 0) != 0)
            ThrowSystem("unlink " + path + "/" + child);
    }
    if (::unlinkat(parentFd, name.c_str(), AT_REMOVEDIR) != 0)
        ThrowSystem("rmdir " + path);
}

} // namespace

void RemoveEntry(int msgsFd, const std::string& name, const std::string& path)
{
    RemoveTree(msgsFd, name, path, 0);
}
