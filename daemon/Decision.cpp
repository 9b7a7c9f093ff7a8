// daemon/Decision.cpp: the entry's directory is opened without
// following a link, and the record is created in it as a new file (a
// leftover is unlinked first, never opened), so that a link planted by
// whoever else writes in the account's entries is neither followed nor
// written through.
#include "Decision.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "shared/fd/Fd.h"

namespace
{

const char* const DecisionName = ".decision";
// A record stays small whatever an engine said.
const std::size_t MaxValue = 1024;

std::string Value(std::string text)
{
    if (text.size() > MaxValue)
        text.resize(MaxValue);
    for (char& c : text)
        if (c < 0x20 || c > 0x7e)
            c = '?';
    return text;
}

std::string Failed(const std::string& what, const std::string& path)
{
    const int error = errno;
    return what + " " + path + " error:" + std::strerror(error);
}

} // namespace

std::string DecisionText(const std::string& answer, const std::string& summary, time_t when)
{
    const std::size_t blank = answer.find(' ');
    std::string engines = summary;
    while (!engines.empty() && (engines.back() == ' ' || engines.back() == ','))
        engines.pop_back();
    struct tm utc {};
    char date[32] = "";
    if (::gmtime_r(&when, &utc) != nullptr)
        (void)std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%SZ", &utc); // fits: 20 bytes
    return "Flags: " + Value(answer.substr(0, blank)) + "\nNote: " +
           Value(blank == std::string::npos ? "" : answer.substr(blank + 1)) +
           "\nEngines: " + Value(engines) + "\nTime: " + std::to_string(when) +
           "\nDate: " + date + "\n";
}

std::string WriteDecision(const std::string& dir, const std::string& text)
{
    const std::string path = dir + "/" + DecisionName;
    Fd dirFd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!dirFd.IsValid())
        return Failed("open", dir);
    if (::unlinkat(dirFd.Get(), DecisionName, 0) != 0 && errno != ENOENT)
        return Failed("unlink", path);
    Fd file(::openat(dirFd.Get(), DecisionName,
                     O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0640));
    if (!file.IsValid())
        return Failed("create", path);
    if (!WriteAll(file.Get(), text.data(), text.size()) || file.Close() != 0)
        return Failed("write", path);
    return "";
}
