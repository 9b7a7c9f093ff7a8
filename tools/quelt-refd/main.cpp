// tools/quelt-refd/main.cpp: the checking daemon's command line. Reads the
// options, builds the engines in their order (clamd, then spamd; the
// reference engine when neither is given) and hands over to the server.
// The one catch of the start-up path is here. Exit status: 0 after a stop
// signal or --help (or a --check that found all well), 1 when it cannot
// start (or --check found a problem), 2 for bad usage.
#include <boost/program_options.hpp>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "ClamdEngine.h"
#include "DaemonLog.h"
#include "ReferenceEngine.h"
#include "SelfCheck.h"
#include "Server.h"
#include "SpamdEngine.h"

namespace po = boost::program_options;

namespace
{

const char* const Synopsis =
    "usage: quelt-refd --basedir DIR [--clamd PATH|HOST:PORT] [--spamd PATH|HOST:PORT]\n"
    "                  [--spam-reject SCORE] [--user NAME] [options]\n"
    "\n"
    "The checking daemon of vorex-zmailer. Listens on DIR/quelt.sock; for each line\n"
    "\"CHECK <entry dir>\" it checks <entry dir>/.msg with ClamAV's clamd and\n"
    "SpamAssassin's spamd and answers one line: the verdict flags in decimal and a\n"
    "note (1 clean, 513 clean with X-Spam-* lines put on top of .msg, 2 reject,\n"
    "4 tempfail, 32 engine trouble). Without engines it finds only the anti-virus\n"
    "test string. See quelt-refd(8).\n";

int BadUsage(const std::string& text, const po::options_description& options)
{
    std::cerr << "quelt-refd: " << text << "\n" << Synopsis << "\n" << options;
    return 2;
}

// Decimal digits only, no sign, at most max; throws std::invalid_argument.
uint64_t ParseNumber(const std::string& option, const std::string& text, uint64_t max)
{
    uint64_t value = 0;
    bool good = !text.empty();
    for (char c : text) {
        good = good && c >= '0' && c <= '9';
        value = good ? value * 10 + static_cast<uint64_t>(c - '0') : 0;
        good = good && value <= max;
    }
    if (!good)
        throw std::invalid_argument(option + " needs a number from 0 to " + std::to_string(max));
    return value;
}

bool IsOneLine(const std::string& text)
{
    return text.find_first_of("\r\n") == std::string::npos;
}

} // namespace

int main(int argc, char** argv)
{
    po::options_description options("Options");
    options.add_options()("help", "this text")(
        "basedir", po::value<std::string>(), "base directory: DIR/quelt.sock, DIR/msgs (required)")(
        "clamd", po::value<std::string>(), "ClamAV's clamd: its socket PATH or HOST:PORT")(
        "spamd", po::value<std::string>(), "SpamAssassin's spamd: its socket PATH or HOST:PORT")(
        "spam-reject", po::value<std::string>(),
        "reject spam scoring SCORE or more (default: tag only)")(
        "spam-max-size", po::value<std::string>()->default_value("524288"),
        "larger messages skip the spam check (BYTES)")(
        "limits-exceeded", po::value<std::string>()->default_value("tempfail"),
        "clamd's size-limit find: reject|tempfail|pass")(
        "engine-timeout", po::value<std::string>()->default_value("20"),
        "SECONDS for all engines of one message")(
        "max-checks", po::value<std::string>()->default_value("16"),
        "connections served at once")("keep-hours", po::value<std::string>()->default_value("72"),
                                      "remove kept entries older than N hours")(
        "user", po::value<std::string>(), "account to run as (the daemon binds first when root)")(
        "facility", po::value<std::string>()->default_value("mail"),
        "syslog facility")("log-stderr", "log to standard error, not syslog")(
        "check", "check the set-up of --basedir and --user and one round trip, then exit")(
        "add-header", po::value<std::string>(),
        "header line 'Name: value' put on top of a clean .msg")(
        "verdict", po::value<std::string>(), "answer N to every message; .msg is left alone")(
        "note", po::value<std::string>(), "the note of every answer")(
        "delay-ms", po::value<std::string>(), "wait N milliseconds before each answer");
    po::variables_map given;
    try {
        po::store(po::parse_command_line(argc, argv, options), given);
        po::notify(given);
    } catch (const po::error& failure) {
        return BadUsage(failure.what(), options);
    }
    if (given.count("help")) {
        std::cout << Synopsis << "\n" << options;
        return 0;
    }
    auto text = [&](const char* name) {
        return given.count(name) ? given[name].as<std::string>() : std::string();
    };

    CheckSettings check;
    ServerSettings server;
    std::vector<std::unique_ptr<Engine>> engines;
    int facility = -1;
    try {
        server.baseDir = text("basedir");
        if (server.baseDir.empty())
            throw std::invalid_argument("--basedir is required");
        if (server.baseDir.back() != '/')
            server.baseDir += '/';
        server.user = text("user");
        server.maxChecks = static_cast<int>(ParseNumber("--max-checks", text("max-checks"), 1024));
        server.keepHours =
            static_cast<int>(ParseNumber("--keep-hours", text("keep-hours"), 100000));
        if (server.maxChecks == 0)
            throw std::invalid_argument("--max-checks needs at least 1");
        if (given.count("delay-ms"))
            server.delayMs =
                static_cast<int>(ParseNumber("--delay-ms", text("delay-ms"), 3600 * 1000));
        facility = FacilityByName(text("facility"));
        if (facility < 0)
            throw std::invalid_argument("unknown --facility " + text("facility"));

        check.engineTimeoutSeconds =
            static_cast<int>(ParseNumber("--engine-timeout", text("engine-timeout"), 3600));
        if (check.engineTimeoutSeconds == 0)
            throw std::invalid_argument("--engine-timeout needs at least 1");
        check.addHeader = text("add-header");
        if (given.count("add-header") &&
            (check.addHeader.find(':') == std::string::npos || !IsOneLine(check.addHeader)))
            throw std::invalid_argument("--add-header needs one line 'Name: value'");
        if (given.count("verdict")) {
            check.fixedVerdict = true;
            check.verdict =
                static_cast<uint32_t>(ParseNumber("--verdict", text("verdict"), UINT32_MAX));
        }
        check.note = text("note");
        if (!IsOneLine(check.note))
            throw std::invalid_argument("--note must be one line");

        const std::string limits = text("limits-exceeded");
        if (limits != "reject" && limits != "tempfail" && limits != "pass")
            throw std::invalid_argument("--limits-exceeded needs reject, tempfail or pass");
        if (given.count("clamd"))
            engines.push_back(std::make_unique<ClamdEngine>(
                ResolveEngineAddress(text("clamd")), limits == "reject" ? LimitsAction::Reject
                                                     : limits == "pass" ? LimitsAction::Pass
                                                                        : LimitsAction::Tempfail));
        SpamSettings spam;
        spam.maxSize = ParseNumber("--spam-max-size", text("spam-max-size"), UINT32_MAX);
        if (given.count("spam-reject")) {
            spam.reject = true;
            spam.rejectText = text("spam-reject");
            char* end = nullptr;
            spam.rejectScore = std::strtod(spam.rejectText.c_str(), &end);
            if (spam.rejectText.empty() || *end != '\0')
                throw std::invalid_argument("--spam-reject needs a score such as 10 or 7.5");
            if (!given.count("spamd"))
                throw std::invalid_argument("--spam-reject needs --spamd");
        }
        if (given.count("spamd"))
            engines.push_back(
                std::make_unique<SpamdEngine>(ResolveEngineAddress(text("spamd")), spam));
        if (engines.empty())
            engines.push_back(std::make_unique<ReferenceEngine>());
    } catch (const std::invalid_argument& failure) {
        return BadUsage(failure.what(), options);
    }

    if (given.count("check"))
        return RunSelfCheck(server.baseDir, server.user);
    OpenDaemonLog(given.count("log-stderr") != 0, facility);
    // The start-up path's one catch: what keeps the daemon from serving.
    try {
        const Checker checker(check, std::move(engines));
        return RunServer(server, checker);
    } catch (const std::exception& failure) {
        Say(LOG_ERR, std::string(failure.what()) + "; not started");
        return 1;
    }
}
