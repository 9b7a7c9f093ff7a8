// daemon/DaemonOptions.h: the daemon's option table and what a
// word list of options means: the settings, the engines in their order, the
// log. The same reading serves the daemon's start and --check, which reads
// the words the unit would pass. Throws std::invalid_argument with a one-line
// text for any bad option, a daemon without an engine among them.
#pragma once

#include <boost/program_options.hpp>
#include <memory>
#include <string>
#include <vector>

#include "Checker.h"
#include "Server.h"
#include "UpstreamPool.h"

// Where the packaged unit takes its options from, and the ones it always
// gives before them.
extern const char* const DefaultsFile;
extern const std::vector<std::string> UnitOptions;

struct DaemonConfig {
    ServerSettings server;
    CheckSettings check;
    std::vector<std::unique_ptr<Engine>> engines;
    std::vector<UpstreamPool*> pools; // the real engines in engines, in their order
    int reviveSeconds = 5;
    int facility = -1;
    bool logStderr = false;
    bool testEngine = false;
    bool spamReject = false; // spamd rejects at a score
};

// The whole table, captioned for --help: the daemon's options, --check's,
// and the test-only ones apart.
boost::program_options::options_description DaemonOptionTable();

// The variables of words (without the program name) read by the table;
// throws std::invalid_argument on a word it does not take.
boost::program_options::variables_map ReadOptionWords(const std::vector<std::string>& words);

// The daemon's configuration from given. Resolves engine addresses now.
DaemonConfig BuildDaemonConfig(const boost::program_options::variables_map& given);
