// daemon/Doctor.cpp: the order of the checks and the one catch of
// --check: a check that fails to run (a program that can not be started) is
// a finding like any other, and the later checks still run.
#include "Doctor.h"

#include <fstream>
#include <functional>
#include <pwd.h>
#include <sstream>

#include "CheckReport.h"
#include "DaemonOptions.h"
#include "FilterRoundTrip.h"
#include "SelfCheck.h"
#include "ZmailerSetup.h"

namespace po = boost::program_options;

namespace
{

// --check's own options and the account, which leave the unit's options in force.
const char* const CheckOnly[] = {"check", "defaults-file", "zmailer-conf", "filter", "user"};
// The unit runs the daemon as this account.
const char* const UnitAccount = "vorex";

// The words of the last OPTIONS= assignment in a defaults file, split at
// blanks as systemd splits an unquoted $OPTIONS; none when the file or the
// line is missing (the unit's EnvironmentFile is optional).
std::vector<std::string> DefaultsWords(const std::string& path)
{
    std::ifstream in(path);
    std::string value;
    for (std::string line; std::getline(in, line);) {
        const std::size_t start = line.find_first_not_of(" \t");
        if (start == std::string::npos || line.compare(start, 8, "OPTIONS=") != 0)
            continue;
        value = line.substr(start + 8);
        const char quote = value.empty() ? '\0' : value[0];
        if (quote == '"' || quote == '\'')
            value = value.substr(1, value.find(quote, 1) - 1);
        else
            value = value.substr(0, value.find('#'));
    }
    std::istringstream split(value);
    std::vector<std::string> words;
    for (std::string word; split >> word;)
        words.push_back(word);
    return words;
}

bool GivesDaemonOptions(const po::variables_map& given)
{
    for (const auto& [name, value] : given) {
        bool checkOnly = value.defaulted();
        for (const char* option : CheckOnly)
            checkOnly = checkOnly || name == option;
        if (!checkOnly)
            return true;
    }
    return false;
}

void Guard(CheckReport& report, const std::string& what, const std::function<void()>& check)
{
    try {
        check();
    } catch (const std::exception& failure) {
        report.Problem(what, failure.what(), "see quelt-refd(8)");
    }
}

// Debian's clamav-daemon does not start before freshclam has fetched a
// signature database: the usual cause on a new host.
const char* const ClamdDatabase =
    "; Debian's clamav-daemon starts only once freshclam has downloaded a signature database"
    " into /var/lib/clamav (systemctl status clamav-freshclam; or run freshclam once)";

void CheckEngines(CheckReport& report, const DaemonConfig& config)
{
    // Every upstream of every pool, one line each (the test engine is
    // part of the daemon and has none); each ping has the whole engine
    // time-out, so a hung member does not eat the others' time.
    for (UpstreamPool* pool : config.pools) {
        const std::string name = pool->Name();
        for (std::size_t at = 0; at < pool->Size(); ++at) {
            const std::string what = name + " at " + pool->Address(at);
            const std::string cause = pool->PingOne(
                at, Clock::now() + std::chrono::seconds(config.check.engineTimeoutSeconds));
            if (cause.empty())
                report.Ok(what + " answers " +
                          (name == "clamd" ? "zPING" : name == "rspamd" ? "GET /ping" : "PING"));
            else
                report.Problem(what, cause,
                               "start it (systemctl start " +
                                   std::string(name == "clamd" ? "clamav-daemon" : name) + ")" +
                                   (name == "clamd" ? ClamdDatabase : "") + " or correct --" +
                                   name + " in OPTIONS in " + DefaultsFile);
        }
    }
}

} // namespace

int RunDoctor(const po::variables_map& given)
{
    CheckReport report;
    const std::string defaults = given["defaults-file"].as<std::string>();
    const bool fromCommandLine = GivesDaemonOptions(given);
    const std::string source = fromCommandLine ? "the command line" : defaults;
    DaemonConfig config;
    bool configured = false;
    try {
        if (fromCommandLine) {
            config = BuildDaemonConfig(given);
        } else {
            std::vector<std::string> words = UnitOptions;
            for (const std::string& word : DefaultsWords(defaults))
                words.push_back(word);
            config = BuildDaemonConfig(ReadOptionWords(words));
        }
        configured = true;
        report.Ok("options from " + source);
    } catch (const std::invalid_argument& failure) {
        report.Problem("options from " + source,
                       std::string(failure.what()) + ": the daemon refuses to start",
                       fromCommandLine ? "see quelt-refd --help"
                                       : "correct OPTIONS in " + defaults +
                                             ", then systemctl restart quelt-refd");
    }
    if (configured && config.testEngine)
        report.Problem("engines", "only the test engine, which finds nothing but the anti-virus "
                                  "test string",
                       "give --clamd, --spamd and/or --rspamd instead of --test-engine");

    const std::string user = given.count("user") ? given["user"].as<std::string>() : UnitAccount;
    const passwd* found = configured ? ::getpwnam(user.c_str()) : nullptr;
    if (configured && (found == nullptr || found->pw_uid == 0))
        report.Problem("account " + user, found == nullptr ? "unknown" : "is root",
                       "give --user with the daemon's account; the package makes 'vorex'");
    if (configured && found != nullptr && found->pw_uid != 0) {
        const passwd account = *found;
        report.Ok("account " + user + " (uid " + std::to_string(account.pw_uid) + ")");
        CheckEngines(report, config);
        if (CheckLayout(report, config.server.baseDir, account)) {
            CheckDaemonAnswers(report, config.server.baseDir, account);
            RoundTripSettings trips;
            trips.filter = given["filter"].as<std::string>();
            trips.baseDir = config.server.baseDir;
            trips.user = user;
            trips.spamReject = config.spamReject;
            for (const auto& engine : config.engines) {
                const std::string name = engine->Name();
                const bool spamd = name == "spamd" || name == "rspamd";
                trips.spamEngine = trips.spamEngine || spamd;
                // rspamd rejects its test string at its own threshold.
                trips.spamReject = trips.spamReject || name == "rspamd";
                trips.virusEngine = trips.virusEngine || !spamd; // clamd or the test engine
            }
            Guard(report, "round trip", [&] { CheckFilterRoundTrips(report, trips); });
        }
    }
    const std::string zmailerConf =
        given.count("zmailer-conf") ? given["zmailer-conf"].as<std::string>() : "";
    Guard(report, "ZMailer", [&] { CheckZmailerSetup(report, zmailerConf); });
    return report.Status();
}
