// daemon/BoundedRun.h: runs another program for --check (the
// filter on a test message, the smtpserver wrapper's own --check) with
// standard input from /dev/null and its standard output and error together
// on one pipe, within a time limit. A program past the limit is killed.
// Throws std::domain_error when it cannot be started.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

struct RunOutcome {
    int status = -1;    // exit status; 128 + signal when killed
    bool timedOut = false;
    pid_t pid = -1;     // the program's process id (it names the filter's entries)
    std::string output; // at most MaxOutput bytes
};

constexpr std::size_t MaxOutput = 64 * 1024;

RunOutcome RunBounded(const std::vector<std::string>& argv, int limitSeconds);
