// quarantine/KeptEntry.h: root reading an entry that the daemon's account
// owns. Every step goes through descriptors: msgs/ and the entry directory
// opened without following a link, each file opened O_NOFOLLOW|O_NONBLOCK
// and accepted only as a regular file with one link within its size bound
// (".envelope" 1 MiB, ".decision" 64 KiB). ".msg" is never read whole.
// Openers report a fault string (empty when all went well); the rest throws
// std::domain_error (system calls) or std::logic_error (what the account left).
#pragma once

#include <sys/stat.h>

#include <map>
#include <string>
#include <vector>

#include "shared/fd/Fd.h"

class MsgsDir
{
public:
    // Opens basedir's "msgs" directory; throws std::domain_error.
    explicit MsgsDir(const std::string& basedir);
    int Get() const { return fd.Get(); }
    // The names in msgs/, unchecked; throws std::domain_error.
    std::vector<std::string> Names() const;

    const std::string path;

private:
    Fd fd;
};

struct KeptEntry {
    std::string name;
    Fd dir;
    struct stat dirStatus {
    };
    Fd msg;
    struct stat msgStatus {
    };
    std::string sender;                          // as the envelope has it, "<>" included
    std::vector<std::string> recipients;         // likewise
    std::map<std::string, std::string> decision; // empty when the daemon left none
    std::string envelopeText, decisionText;      // the files' bytes
};

// A name inside msgs/: not empty, no '/', not "." or "..".
bool IsEntryName(const std::string& name);

// Opens the directory of the entry called name (dir and dirStatus only).
std::string OpenEntryDirectory(const MsgsDir& msgs, const std::string& name, KeptEntry& entry);

// Opens and reads the entry called name; on a fault nothing has been changed.
std::string OpenKeptEntry(const MsgsDir& msgs, const std::string& name, KeptEntry& entry);

// The first lines of ".msg" up to its header end: at most 64 lines and
// 16 KiB. Throws std::domain_error.
std::string TopHeaders(const KeptEntry& entry);

// Removes the entry: each file in it through the entry's descriptor, then
// the directory from msgs/ if that name still holds the very directory.
// Throws std::domain_error or std::logic_error (a subdirectory, a swap).
void RemoveKeptEntry(const MsgsDir& msgs, const KeptEntry& entry);
