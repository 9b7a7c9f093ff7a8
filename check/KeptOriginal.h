// check/KeptOriginal.h: the record of a kept message that only root writes.
// The daemon's account owns the entry and may change its ".envelope" and
// ".msg" at any time; a release must send what this filter received. So for
// every verdict that keeps the entry the job writes ".original" into it:
// mode 0600, owned by root, the entry's own name first (a record moved into
// another entry does not match it), then the envelope and the message as
// they stand in the spool file:
//
//     entry <entry name>\n
//     size <message bytes>\n
//     from <sender>\n
//     to <recipient>\n ...
//     env-end\n
//     <message bytes>
//
// The account can remove the record but neither write it nor make another;
// a record cut short (its copy failed and so did its removal) is known by
// its size line.
// A failure leaves no record and is logged at error level; it changes no
// verdict (the message stays refused; only its release is lost). Nothing
// here throws.
#pragma once

#include <cstdint>
#include <string>

class Mail;

// Written after the daemon's verdict, so that the entry's change of owner
// (which takes every file the job made in it) never reaches the record.
bool SaveKeptOriginal(const std::string& entryDir, const char* entryId, const Mail& mail,
                      int spoolFd, int64_t envelopeSize, int64_t messageSize);
