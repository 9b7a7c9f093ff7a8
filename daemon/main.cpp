// daemon/main.cpp: the checking daemon's command line. Reads the
// options (DaemonOptions), runs --check or hands the engines to the server.
// The one catch of the start-up path is here. Exit status: 0 after a stop
// signal, --help or --version (or a --check that found all well), 1 when it
// cannot start (or --check found a problem), 2 for bad usage: one line on
// standard error, so that the unit's journal shows the cause and the unit
// does not restart (RestartPreventExitStatus=2).
#include <iostream>
#include <string>
#include <vector>

#include "DaemonLog.h"
#include "DaemonOptions.h"
#include "Doctor.h"
#include "Metrics.h"

namespace
{

const char* const Synopsis =
    "usage: quelt-refd [--basedir DIR] --clamd PATH|HOST:PORT [--spamd PATH|HOST:PORT]\n"
    "                  [--rspamd PATH|HOST:PORT] [--spam-reject SCORE] [--user NAME] [options]\n"
    "       quelt-refd --check [options]\n"
    "\n"
    "The checking daemon of vorex-zmailer. Listens on DIR/quelt.sock; for each line\n"
    "\"CHECK <entry dir>\" it checks <entry dir>/.msg with ClamAV's clamd,\n"
    "SpamAssassin's spamd and/or rspamd and answers one line: the verdict flags in\n"
    "decimal and a note (1 clean, 513 clean with X-Spam-* lines put on top of\n"
    ".msg, 2 reject, 4 tempfail, 32 engine trouble). It needs at least one engine.\n"
    "--check tests the daemon's set-up, its engines and ZMailer's. See quelt-refd(8).\n";

int BadUsage(const std::string& text)
{
    std::cerr << "quelt-refd: " << text << " (see --help)\n";
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    const std::vector<std::string> words(argv + 1, argv + argc);
    boost::program_options::variables_map given;
    try {
        given = ReadOptionWords(words);
    } catch (const std::invalid_argument& failure) {
        return BadUsage(failure.what());
    }
    if (given.count("help")) {
        std::cout << Synopsis << "\n" << DaemonOptionTable();
        return 0;
    }
    if (given.count("version")) {
        std::cout << "quelt-refd " VOREX_VERSION "\n";
        return 0;
    }
    if (given.count("check"))
        return RunDoctor(given);

    DaemonConfig config;
    try {
        config = BuildDaemonConfig(given);
    } catch (const std::invalid_argument& failure) {
        return BadUsage(failure.what());
    }
    OpenDaemonLog(config.logStderr, config.facility);
    // The start-up path's one catch: what keeps the daemon from serving.
    try {
        // Made before the checker and the server that record in it; its
        // listener starts in the server, as the account.
        std::unique_ptr<Metrics> metrics;
        if (!config.server.metricsListen.empty()) {
            metrics = std::make_unique<Metrics>();
            for (UpstreamPool* pool : config.pools)
                pool->AttachMetrics(*metrics);
            config.check.metrics = metrics.get();
            config.server.metrics = metrics.get();
        }
        const Checker checker(config.check, std::move(config.engines));
        return RunServer(config.server, checker);
    } catch (const std::exception& failure) {
        Say(LOG_ERR, std::string(failure.what()) + "; not started");
        return 1;
    }
}
