// quarantine/KeptEntry.cpp: the account can replace any name in its entry at
// any time, so nothing here opens a path: each open is relative to a
// directory descriptor and never follows a link, and what it gives is
// checked with fstat before a byte is read.
#include "KeptEntry.h"

#include <dirent.h>
#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "shared/fd/SmallFile.h"

namespace
{

const std::size_t MaxEnvelope = 1024 * 1024;
const std::size_t MaxDecision = 64 * 1024;
const std::size_t MaxHeaderBytes = 16 * 1024;
const int MaxHeaderLines = 64;

std::string Cause(const std::string& what, const std::string& path)
{
    const int error = errno;
    return what + " " + path + " error:" + std::strerror(error);
}

// Each line that holds separator, split at its first one into a pair.
void SplitLines(const std::string& text, const std::string& separator,
                std::vector<std::pair<std::string, std::string>>& pairs)
{
    for (std::size_t at = 0; at < text.size();) {
        std::size_t end = text.find('\n', at);
        end = end == std::string::npos ? text.size() : end;
        const std::string line = text.substr(at, end - at);
        const std::size_t split = line.find(separator);
        if (split != std::string::npos)
            pairs.emplace_back(line.substr(0, split), line.substr(split + separator.size()));
        at = end + 1;
    }
}

[[noreturn]] void ThrowSystem(const std::string& what, const std::string& path)
{
    throw std::domain_error(Cause(what, path));
}

// The names in the directory open as dirFd but "." and "..".
std::vector<std::string> ListNames(int dirFd, const std::string& path)
{
    // A description of its own, so that the walk starts at the front.
    const int listFd = ::openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (listFd < 0)
        ThrowSystem("open", path);
    DIR* list = ::fdopendir(listFd);
    if (list == nullptr) {
        const int error = errno;
        (void)::close(listFd); // read-only
        errno = error;
        ThrowSystem("list", path);
    }
    std::vector<std::string> names;
    errno = 0;
    while (const dirent* item = ::readdir(list)) {
        if (IsEntryName(item->d_name))
            names.emplace_back(item->d_name);
        errno = 0;
    }
    const int error = errno;
    (void)::closedir(list); // read-only
    errno = error;
    if (error != 0)
        ThrowSystem("list", path);
    return names;
}

} // namespace

MsgsDir::MsgsDir(const std::string& basedir)
    : path(basedir.substr(0, basedir.find_last_not_of('/') + 1) + "/msgs"),
      fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC))
{
    if (!fd.IsValid())
        ThrowSystem("open", path);
}

std::vector<std::string> MsgsDir::Names() const
{
    return ListNames(fd.Get(), path);
}

bool IsEntryName(const std::string& name)
{
    return !name.empty() && name != "." && name != ".." &&
           name.find_first_of(std::string("/\0", 2)) == std::string::npos;
}

std::string OpenEntryDirectory(const MsgsDir& msgs, const std::string& name, KeptEntry& entry)
{
    if (!IsEntryName(name))
        return "'" + name + "' is no entry name";
    const std::string path = msgs.path + "/" + name;
    entry.name = name;
    entry.dir =
        Fd(::openat(msgs.Get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!entry.dir.IsValid())
        return Cause("open", path);
    if (::fstat(entry.dir.Get(), &entry.dirStatus) != 0)
        return Cause("fstat", path);
    return "";
}

std::string OpenKeptEntry(const MsgsDir& msgs, const std::string& name, KeptEntry& entry)
{
    std::string fault = OpenEntryDirectory(msgs, name, entry);
    if (!fault.empty())
        return fault;
    const std::string path = msgs.path + "/" + name;
    fault =
        OpenSmallFile(entry.dir.Get(), path, ".msg", SIZE_MAX, false, entry.msg, entry.msgStatus);
    Fd envelope, decision;
    struct stat status {
    };
    if (fault.empty())
        fault =
            OpenSmallFile(entry.dir.Get(), path, ".envelope", MaxEnvelope, false, envelope, status);
    if (fault.empty())
        fault = ReadSmallFile(envelope.Get(), path + "/.envelope", MaxEnvelope, entry.envelopeText);
    if (fault.empty())
        fault =
            OpenSmallFile(entry.dir.Get(), path, ".decision", MaxDecision, true, decision, status);
    if (fault.empty() && decision.IsValid())
        fault = ReadSmallFile(decision.Get(), path + "/.decision", MaxDecision, entry.decisionText);
    if (!fault.empty())
        return fault;
    std::vector<std::pair<std::string, std::string>> pairs;
    SplitLines(entry.envelopeText, " ", pairs);
    for (const auto& [word, address] : pairs) {
        if (word == "from" && entry.sender.empty())
            entry.sender = address;
        else if (word == "to")
            entry.recipients.push_back(address);
    }
    pairs.clear();
    SplitLines(entry.decisionText, ": ", pairs);
    for (const auto& [key, value] : pairs)
        entry.decision.emplace(key, value);
    return "";
}

std::string TopHeaders(const KeptEntry& entry)
{
    std::string text;
    char block[4096];
    int lines = 0;
    for (off_t offset = 0; text.size() < MaxHeaderBytes;) {
        const ssize_t count = ::pread(entry.msg.Get(), block, sizeof block, offset);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            ThrowSystem("read", entry.name + "/.msg");
        if (count == 0)
            return text;
        offset += count;
        for (ssize_t i = 0; i < count && text.size() < MaxHeaderBytes; ++i) {
            const bool lineStart = text.empty() || text.back() == '\n';
            if (lineStart && (block[i] == '\n' || lines == MaxHeaderLines))
                return text;
            lines += lineStart ? 1 : 0;
            text += block[i];
        }
    }
    return text;
}

void RemoveKeptEntry(const MsgsDir& msgs, const KeptEntry& entry)
{
    const std::string path = msgs.path + "/" + entry.name;
    // Names only, never a directory and never what a link points to; files
    // the account adds meanwhile get a few more sweeps.
    for (int sweep = 0; sweep < 4; ++sweep) {
        const std::vector<std::string> names = ListNames(entry.dir.Get(), path);
        if (names.empty())
            break;
        for (const std::string& name : names)
            if (::unlinkat(entry.dir.Get(), name.c_str(), 0) != 0 && errno != ENOENT)
                ThrowSystem("remove", path + "/" + name);
    }
    struct stat now {
    };
    if (::fstatat(msgs.Get(), entry.name.c_str(), &now, AT_SYMLINK_NOFOLLOW) != 0)
        ThrowSystem("fstat", path);
    if (!S_ISDIR(now.st_mode) || now.st_dev != entry.dirStatus.st_dev ||
        now.st_ino != entry.dirStatus.st_ino)
        throw std::logic_error(path + " was replaced while it was removed");
    if (::unlinkat(msgs.Get(), entry.name.c_str(), AT_REMOVEDIR) != 0)
        ThrowSystem("remove", path);
}
