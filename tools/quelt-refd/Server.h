// tools/quelt-refd/Server.h: the reference daemon's socket side: claims
// "quelt.sock" under the base directory, answers one connection at a time and
// stops cleanly on SIGTERM or SIGINT. Problems go to standard error.
#pragma once

#include <cstdint>
#include <string>

struct DaemonOptions {
    std::string baseDir;   // ends with "/"
    std::string addHeader; // empty: leave ".msg" alone
    bool fixedVerdict = false;
    uint32_t verdict = 0;
    std::string note; // empty: the check's own note (none with --verdict)
    int delayMs = 0;
};

// Runs the daemon until a stop signal; returns the exit status: 0 after a
// clean stop, 1 when it could not start (another daemon answers, no socket).
int RunServer(const DaemonOptions& options);
