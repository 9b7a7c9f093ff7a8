// daemon/Server.h: the daemon's service: takes the listening
// socket systemd passes, or claims "quelt.sock" under the base directory and
// binds it (root:<account's group> 0660 when started as root); drops to the
// account, sweeps kept entries, pings every upstream of the engines once,
// tells systemd it is ready, probes the upstreams that are down (one thread
// for all pools), serves checks with a fixed pool of threads
// and stops cleanly on SIGTERM or SIGINT (no new connections; checks in
// flight are answered; a socket it bound is removed). Failures to start
// throw; the caller logs them.
#pragma once

#include <string>

#include "Checker.h"
#include "Metrics.h"
#include "UpstreamPool.h"

struct ServerSettings {
    std::string baseDir; // ends with "/"
    std::string user;    // empty: stay who we are
    int maxChecks = 16;  // connections served at once
    int keepHours = 72;  // kept entries older than this are removed
    int delayMs = 0;     // wait before each answer (tests)
    std::vector<UpstreamPool*> pools; // the engines' pools, probed in the background
    std::string metricsListen;        // empty: no metrics; else HOST:PORT for /metrics
    Metrics* metrics = nullptr;       // set when metricsListen is
};

// Serves until a stop signal; returns the exit status (0 after a clean stop).
int RunServer(const ServerSettings& settings, const Checker& checker);
