// daemon/Sweeper.h: removal of kept entries. After a reject,
// tempfail or discard the filter leaves the entry to the daemon; entries
// older than keepHours (by the later of their change and modification
// times) are removed with everything in them, never following a link, and
// only directories owned by the daemon's own uid. Each removal is logged;
// a failure is logged and the sweep goes on.
#pragma once

#include <string>
#include <vector>

class Metrics;

// Removes the entry name in the "msgs/" directory open as msgsFd with all
// in it, following no link; path names it in errors (std::domain_error).
void RemoveEntry(int msgsFd, const std::string& name, const std::string& path);

// The names in the directory open as dirFd, without "." and "..".
std::vector<std::string> ListNames(int dirFd, const std::string& path);

// One sweep of msgsDir now; the entries it keeps go to metrics (when not
// null) as their number and the oldest one's age.
void SweepKeptEntries(const std::string& msgsDir, int keepHours, Metrics* metrics = nullptr);

// Sweeps until stopFd turns readable (a thread's body): every hour, or
// every minute with metrics, so that their census stays fresh.
void RunSweeper(std::string msgsDir, int keepHours, int stopFd, Metrics* metrics = nullptr);
