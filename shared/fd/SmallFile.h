// shared/fd/SmallFile.h: a small file of an entry the account owns, read by
// a process that must not be led astray: opened relative to the entry's
// directory descriptor with O_NOFOLLOW|O_NONBLOCK, accepted only as a
// regular file with one link within a size bound, read to its end without
// passing the bound. Faults are returned as text (empty: all went well).
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <string>

#include "shared/fd/Fd.h"

// Opens name in dirFd (path names the directory in faults); missingOk: a
// missing file is no fault and leaves file invalid.
std::string OpenSmallFile(int dirFd, const std::string& path, const char* name, std::size_t maxSize,
                          bool missingOk, Fd& file, struct stat& status);

// Appends the rest of a file opened by OpenSmallFile to text, at most
// maxSize bytes; path names the file in faults.
std::string ReadSmallFile(int fd, const std::string& path, std::size_t maxSize, std::string& text);

// Both: the whole of name in dirFd.
std::string ReadSmallFileAt(int dirFd, const std::string& path, const char* name,
                            std::size_t maxSize, std::string& text);
