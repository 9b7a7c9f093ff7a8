// quarantine/KeptRecord.cpp: the record's head is read in blocks up to its
// "env-end" line (a bounded part of the file); the message after it is
// never read here, only copied by the kernel.
#include "KeptRecord.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "KeptEntry.h"

namespace
{

const char RecordName[] = ".original";
const std::size_t MaxHead = 1024 * 1024;

} // namespace

KeptRecord ReadKeptRecord(const KeptEntry& entry, const std::string& path)
{
    const std::string where = path + "/" + RecordName;
    KeptRecord record;
    record.file =
        Fd(::openat(entry.dir.Get(), RecordName, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status;
    if (!record.file.IsValid() && errno == ENOENT)
        throw std::logic_error(where +
                               " is missing: there is no record of what the filter received "
                               "(kept by an older version, or removed by the account)");
    if (!record.file.IsValid() || ::fstat(record.file.Get(), &status) != 0)
        throw std::domain_error("open " + where + " error:" + std::strerror(errno));
    if (!S_ISREG(status.st_mode) || status.st_nlink != 1 || status.st_uid != 0 ||
        (status.st_mode & 077) != 0)
        throw std::logic_error(where + " is not the filter's: not a regular file of root's, "
                                       "mode 0600, with one link");
    record.size = status.st_size;

    std::string head;
    char block[8192];
    // The first line names the entry, so the end line always follows a line end.
    std::size_t end;
    while ((end = head.find("\nenv-end\n")) == std::string::npos) {
        if (head.size() > MaxHead)
            throw std::logic_error(where + " has no envelope end in its first " +
                                   std::to_string(MaxHead) + " bytes");
        const ssize_t count = ::pread(record.file.Get(), block, sizeof block,
                                      static_cast<off_t>(head.size()));
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            throw std::domain_error("read " + where + " error:" + std::strerror(errno));
        if (count == 0)
            throw std::logic_error(where + " ends before its envelope does");
        head.append(block, static_cast<std::size_t>(count));
    }
    record.messageStart = static_cast<off_t>(end + 9);
    head.resize(end + 1);

    // "entry NAME", "size BYTES", "from ADDRESS", then "to ADDRESS" lines.
    std::size_t line = 0;
    std::string length;
    for (std::size_t at = 0; at < head.size(); ++line) {
        const std::size_t next = head.find('\n', at);
        const std::string text = head.substr(at, next - at);
        at = next + 1;
        const std::size_t blank = text.find(' ');
        const std::string word = text.substr(0, blank);
        const std::string value = blank == std::string::npos ? "" : text.substr(blank + 1);
        if (line == 0 && (word != "entry" || value != entry.name))
            throw std::logic_error(where + " was written for another entry");
        else if (line == 1 && word == "size")
            length = value;
        else if (line == 2 && word == "from")
            record.sender = value;
        else if (line > 2 && word == "to")
            record.recipients.push_back(value);
        else if (line != 0)
            throw std::logic_error(where + " has an unknown line " + std::to_string(line + 1));
    }
    if (line < 3)
        throw std::logic_error(where + " names no sender");
    if (length != std::to_string(record.size - record.messageStart))
        throw std::logic_error(where + " is not whole: its message is not " + length + " bytes");
    return record;
}
