// shared/zmailer/ReleaseMark.h: how vorex-quarantine tells the router stage
// that a queued file is a release, which must be routed without a second
// check, without a secret in the message and without a mark that mail from
// outside could imitate. Before a release's file enters the router queue,
// root writes a mark for it into $POSTOFFICE/vorex-released/, a folder only
// root can write: named by the file's device and inode, holding its size
// and modification time (which a rename keeps). The router stage, run as
// root in the router's queue, takes a mark that matches the file it was
// given and lets the file through. A file that merely reuses the inode
// later differs in its modification time; a stale mark is removed when
// met and by the next release after a day.
#pragma once

#include <chrono>
#include <string>

#include "shared/fd/Fd.h"

// The folder's name in $POSTOFFICE.
constexpr char ReleaseMarkFolder[] = "vorex-released";

// Opens the folder (path names it in faults), creating it (mode 0700) in
// parentFd when create is set. Accepted only as a directory of root's that
// no one else may write to. Throws std::domain_error.
Fd OpenReleaseMarks(int parentFd, const std::string& path, bool create);

// Writes and syncs the mark of the queued file open on fileFd, for entry
// (kept in the mark for the log). Throws std::domain_error.
void WriteReleaseMark(int marksFd, int fileFd, const std::string& entry);

// Removes the mark of fileFd, if any (a release that failed after writing it).
void DropReleaseMark(int marksFd, int fileFd);

// True when a mark for fileFd is there and matches the file; a mark with
// the file's name is removed whether it matched or not. entry: what the
// mark named. Never throws: a mark that cannot be read is no mark.
bool TakeReleaseMark(int marksFd, int fileFd, std::string& entry);

// Removes marks older than age.
void SweepReleaseMarks(int marksFd, std::chrono::seconds age);
