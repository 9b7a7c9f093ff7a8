// platform/receiver/EntryFiles.h: opening files inside a daemon entry
// without trusting the daemon's account, which owns the entry once it has
// been handed over. A path names the entry directory and one file in it; the
// directory is reached through the descriptor pinned when the entry was made
// (or, for a directory that is no live entry, opened without following a
// link), and the file itself never through a link.
// Both return -1 with a cause; nothing here throws.
#pragma once

#include <sys/stat.h>

#include <string>

// Creates the file at path for writing: a new regular file with exactly the
// given mode, never one that was there before. In a live entry, the entry
// keeps a descriptor of it for MsgEntry::SetOwner.
int CreateEntryFile(const std::string& path, mode_t mode, std::string& cause);

// Removes the file at path (never a directory, never what a link points to).
bool RemoveEntryFile(const std::string& path, std::string& cause);

// Opens the file at path read-only when it is a regular file with one link,
// in an entry still at its place, and fills status. Never blocks on what was
// planted there (a FIFO, a device): the descriptor is blocking again only
// after the checks.
int OpenEntryFileForReading(const std::string& path, struct stat& status, std::string& cause);
