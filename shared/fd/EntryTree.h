// shared/fd/EntryTree.h: listing and removing entry directories under
// "msgs/", which the daemon's account can write: everything through
// directory descriptors, no link followed, at most a few levels deep.
// Failures throw std::domain_error (a system call, with its text) or
// std::logic_error (a tree nested too deep).
#pragma once

#include <string>
#include <vector>

// Removes the entry name in the "msgs/" directory open as msgsFd with all
// in it, following no link; path names it in errors.
void RemoveEntry(int msgsFd, const std::string& name, const std::string& path);

// The names in the directory open as dirFd, without "." and "..".
std::vector<std::string> ListNames(int dirFd, const std::string& path);
