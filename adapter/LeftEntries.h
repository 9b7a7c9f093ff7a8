// adapter/LeftEntries.h: the entries that a filter killed in a job leaves
// in the base directory's "msgs/" (a filter that answers or fails removes
// its own). Entries are named "[ID.]SECONDS.PID.SEQUENCE" by the filter that
// made them; those of the dead filter's process id, made since its job began
// and without the daemon's ".decision" (which only an entry the filter keeps
// gets) are removed. The daemon's account writes in "msgs/" and in the
// entries: everything goes through descriptors, no link is followed, no
// tree deeper than an entry can be is walked, and nothing found is trusted.
// The sweep is a driver of its own: it throws nothing and returns what it
// did and what failed, for the log.
#pragma once

#include <sys/types.h>

#include <ctime>
#include <string>
#include <vector>

struct LeftEntriesSweep {
    std::vector<std::string> removed; // entry names
    std::vector<std::string> faults;  // whole messages
};

// Sweeps basedir's (ending in "/") "msgs/" for the entries of the filter
// with process id filter, made at or after jobStart (the clock's seconds).
// Call it while the dead filter is not yet reaped, so that no other process
// can have its id.
LeftEntriesSweep RemoveLeftEntries(const std::string& basedir, pid_t filter, time_t jobStart);
