// quarantine/KeptRecord.h: the record of a kept message that the root
// filter wrote into the entry (".original": the entry's name, the envelope
// as the filter read it, the message as it arrived). A release sends this
// and nothing else: the account owns the entry and may have rewritten its
// ".envelope" and ".msg", but it can neither write a root-owned file of
// mode 0600 nor make one; a record it moved in from another entry names
// that entry, and a hard link to one is refused for its second link.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "shared/fd/Fd.h"

struct KeptEntry;

struct KeptRecord {
    Fd file;
    std::string sender;                  // "<address>", "<>" for the null sender
    std::vector<std::string> recipients; // "<address>" each
    off_t messageStart = 0;              // where the message begins in file
    off_t size = 0;                      // the whole file's
};

// Opens and checks the record of entry. Throws std::logic_error naming what
// is wrong with it, std::domain_error when a system call fails.
KeptRecord ReadKeptRecord(const KeptEntry& entry, const std::string& path);
