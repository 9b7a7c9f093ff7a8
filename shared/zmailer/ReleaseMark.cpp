// shared/zmailer/ReleaseMark.cpp: marks are small files of root's, read
// through descriptors only.
#include "shared/zmailer/ReleaseMark.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <vector>

#include "shared/fd/SmallFile.h"

namespace
{

const std::size_t MaxMark = 4096;

std::string SystemFault(const std::string& what)
{
    return what + " error:" + std::strerror(errno);
}

// "<device>-<inode>" in hexadecimal; fileFd's status in status.
std::string MarkName(int fileFd, struct stat& status)
{
    if (::fstat(fileFd, &status) != 0)
        throw std::domain_error(SystemFault("fstat of the queued file"));
    char name[64];
    std::snprintf(name, sizeof name, "%llx-%llx", static_cast<unsigned long long>(status.st_dev),
                  static_cast<unsigned long long>(status.st_ino));
    return name;
}

// What binds a mark to its file; the entry's name follows.
std::string MarkText(const struct stat& status)
{
    char line[128];
    std::snprintf(line, sizeof line, "size %lld\nmtime %lld.%09ld\n",
                  static_cast<long long>(status.st_size),
                  static_cast<long long>(status.st_mtim.tv_sec), status.st_mtim.tv_nsec);
    return std::string(line) + "entry ";
}

} // namespace

Fd OpenReleaseMarks(int parentFd, const std::string& path, bool create)
{
    if (create && ::mkdirat(parentFd, ReleaseMarkFolder, 0700) != 0 && errno != EEXIST)
        throw std::domain_error(SystemFault("mkdir " + path));
    Fd marks(::openat(parentFd, ReleaseMarkFolder,
                      O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status;
    if (!marks.IsValid() || ::fstat(marks.Get(), &status) != 0)
        throw std::domain_error(SystemFault("open " + path));
    if (status.st_uid != 0 || (status.st_mode & 022) != 0)
        throw std::domain_error(path + " is not root's alone (owner " +
                                std::to_string(status.st_uid) + ", mode " +
                                std::to_string(status.st_mode & 07777) + ")");
    return marks;
}

void WriteReleaseMark(int marksFd, int fileFd, const std::string& entry)
{
    struct stat status;
    const std::string name = MarkName(fileFd, status);
    const std::string text = MarkText(status) + entry + "\n";
    (void)::unlinkat(marksFd, name.c_str(), 0); // a stale one: replaced
    Fd mark(::openat(marksFd, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                     0600));
    if (!mark.IsValid() || !WriteAll(mark.Get(), text.data(), text.size()) ||
        ::fsync(mark.Get()) != 0 || mark.Close() != 0) {
        const std::string fault = SystemFault("write release mark " + name);
        (void)::unlinkat(marksFd, name.c_str(), 0);
        throw std::domain_error(fault);
    }
}

void DropReleaseMark(int marksFd, int fileFd)
{
    struct stat status;
    (void)::unlinkat(marksFd, MarkName(fileFd, status).c_str(), 0); // gone already: fine
}

bool TakeReleaseMark(int marksFd, int fileFd, std::string& entry)
{
    struct stat status;
    std::string name, text;
    try {
        name = MarkName(fileFd, status);
    } catch (const std::domain_error&) {
        return false;
    }
    Fd mark;
    struct stat markStatus;
    if (!OpenSmallFile(marksFd, ReleaseMarkFolder, name.c_str(), MaxMark, true, mark, markStatus)
             .empty() ||
        !mark.IsValid())
        return false;
    const bool read = ReadSmallFile(mark.Get(), name, MaxMark, text).empty();
    (void)::unlinkat(marksFd, name.c_str(), 0); // used up, or stale
    const std::string expected = MarkText(status);
    if (!read || markStatus.st_uid != 0 || (markStatus.st_mode & 077) != 0 ||
        text.size() <= expected.size() || text.compare(0, expected.size(), expected) != 0 ||
        text.back() != '\n')
        return false;
    entry = text.substr(expected.size(), text.size() - expected.size() - 1);
    return true;
}

void SweepReleaseMarks(int marksFd, std::chrono::seconds age)
{
    const int listFd = ::dup(marksFd);
    DIR* list = listFd >= 0 ? ::fdopendir(listFd) : nullptr;
    if (list == nullptr) {
        if (listFd >= 0)
            (void)::close(listFd);
        return; // the sweep is housekeeping: the next release tries again
    }
    std::vector<std::string> old;
    const time_t before = std::time(nullptr) - age.count();
    for (const dirent* item; (item = ::readdir(list)) != nullptr;) {
        struct stat status;
        if (item->d_name[0] != '.' &&
            ::fstatat(marksFd, item->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            status.st_mtime < before)
            old.emplace_back(item->d_name);
    }
    (void)::closedir(list);
    for (const std::string& name : old)
        (void)::unlinkat(marksFd, name.c_str(), 0);
}
