// daemon/Entry.h: one entry directory as the daemon works on it:
// the directory and its ".msg" opened without following links (".msg" must
// be a regular file), and new header lines put on top of ".msg" by writing
// a new file in the entry and renaming it over the old one (a regular file,
// one link, mode 0660). The envelope is read through the directory's
// descriptor, bounded, without following links. Failures throw std::domain_error (system calls) or
// std::logic_error (an entry that is not as the filter makes it).
#pragma once

#include <string>
#include <sys/stat.h>

#include "Engine.h"
#include "shared/fd/Fd.h"

class Entry
{
public:
    explicit Entry(const std::string& dir);

    int Msg() const { return msg.Get(); }
    const struct stat& MsgStatus() const { return msgStatus; }

    // The entry's ".envelope" ("from S" then "to R" lines, at most 1 MiB,
    // no control bytes in an address) and the entry's name as the queue id.
    MessageEnvelope ReadEnvelope() const;

    // Makes lines (whole lines, each ending "\n") the first lines of ".msg".
    // On failure ".msg" is as it was.
    void PrependHeaders(const std::string& lines);

private:
    const std::string dir;
    Fd dirFd;
    Fd msg;
    struct stat msgStatus;
};
