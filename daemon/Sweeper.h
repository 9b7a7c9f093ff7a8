// daemon/Sweeper.h: removal of kept entries. After a reject,
// tempfail or discard the filter leaves the entry to the daemon; entries
// older than keepHours (by the later of their change and modification
// times) are removed with everything in them, never following a link, and
// only directories owned by the daemon's own uid. Each removal is logged;
// a failure is logged and the sweep goes on.
#pragma once

#include <string>
#include <vector>

#include "shared/fd/EntryTree.h"

class Metrics;

// One sweep of msgsDir now; the entries it keeps go to metrics (when not
// null) as their number and the oldest one's age.
void SweepKeptEntries(const std::string& msgsDir, int keepHours, Metrics* metrics = nullptr);

// Sweeps until stopFd turns readable (a thread's body): every hour, or
// every minute with metrics, so that their census stays fresh.
void RunSweeper(std::string msgsDir, int keepHours, int stopFd, Metrics* metrics = nullptr);
