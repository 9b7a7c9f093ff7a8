// adapter/main.cpp: vorex-zmailer-filter, the program smtpserver's
// "PARAM contentfilter" names, and the router-stage snippet runs with
// --file. Reads the site's filter options and the secret, then supervises
// the filter for smtpserver, runs it on one queued file, or, with --check,
// tries the set-up once. The only place that catches.
#include <signal.h>

#include <chrono>
#include <exception>
#include <iostream>
#include <string>

#include <boost/program_options.hpp>

#include "adapter/AdapterLog.h"
#include "adapter/RouterStage.h"
#include "adapter/SetupCheck.h"
#include "adapter/SiteOptions.h"
#include "adapter/Supervisor.h"
#include "shared/zmailer/Secret.h"

namespace po = boost::program_options;

namespace
{

const char Usage[] =
    "usage: vorex-zmailer-filter [--config FILE] [--filter PATH] [--secret-file FILE]\n"
    "                            [--job-limit SECONDS] [--log-file FILE] [--check]\n"
    "                            [--file QUEUED-FILE]\n"
    "       vorex-zmailer-filter --help | --version\n"
    "\n"
    "Runs vorex-zmailer as smtpserver's content filter with the options in the\n"
    "configuration file, and answers every job line with one reply line and\n"
    "\"#hungry\", also when the filter fails. With --file, checks one file of\n"
    "the router's queue instead (process.cf). See vorex-zmailer-filter(8).\n";

// The longest a job may take; smtpserver itself gives up at 120 s and then
// accepts the message unchecked.
const int MaxJobLimit = 110;

// The options file and the secret as they are now, into what the next
// filter runs with: its command (none when the file cannot be read), the
// error action and the base directory. What is wrong goes to the log.
void ReadForNextFilter(const std::string& configPath, const std::string& secretPath,
                       const std::string& filterPath, SupervisorSettings& settings, AdapterLog& log)
{
    SiteOptions site;
    try {
        ReadSiteOptions(configPath, secretPath, site);
    } catch (const std::exception& fault) {
        log.Error(fault.what() + std::string("; jobs are answered with the error action"));
    }
    if (site.secret.empty())
        log.Warn("no secret in " + secretPath + ": mail returned by the daemon is checked again");
    // A file that cannot be read leaves no options to run the filter with:
    // every job is then answered here. Bad options are left to the filter,
    // which names them in its failure line.
    settings.filterCommand =
        site.read ? FilterCommand(filterPath, site) : std::vector<std::string>{};
    settings.filterEnvironment = FilterEnvironment(site);
    settings.errorAction = site.errorAction;
    settings.basedir = site.basedir;
}

} // namespace

int main(int argc, char** argv)
{
    std::string configPath, secretPath, filterPath, logFile, queuedFile;
    int jobLimit = 100;
    po::options_description options("Options");
    options.add_options()("help,h", "this text")("version", "the version, then exit")(
        "config", po::value(&configPath)->default_value(VOREX_CONFIG), "the filter's options")(
        "filter", po::value(&filterPath)->default_value(VOREX_FILTER), "the filter program")(
        "secret-file", po::value(&secretPath)->default_value(SecretFile),
        "the secret handed to the filter")("job-limit", po::value(&jobLimit)->default_value(100),
                                       "seconds a job may take before the filter is killed")(
        "log-file", po::value(&logFile), "log to this file instead of the system log")(
        "check", "try the set-up once and say what to fix")(
        "file", po::value(&queuedFile), "router stage: check this queued file and end")(
        ",Z", po::value<std::string>(), "ZMailer's configuration, passed by smtpserver; ignored");
    // Arguments that are not options (smtpserver may pass an address).
    po::options_description all;
    all.add(options).add_options()("address", po::value<std::vector<std::string>>());
    po::positional_options_description ignored;
    ignored.add("address", -1);
    po::variables_map given;
    try {
        po::store(po::command_line_parser(argc, argv).options(all).positional(ignored).run(),
                  given);
        po::notify(given);
        if (jobLimit < 1 || jobLimit > MaxJobLimit)
            throw std::invalid_argument("--job-limit must be 1 to " + std::to_string(MaxJobLimit));
    } catch (const std::exception& failure) {
        std::cerr << "vorex-zmailer-filter: " << failure.what() << "\n" << Usage;
        return 2;
    }
    if (given.count("help")) {
        std::cout << Usage << "\n" << options;
        return 0;
    }
    if (given.count("version")) {
        std::cout << "vorex-zmailer-filter " VOREX_VERSION "\n";
        return 0;
    }
    // A filter that is gone must not end the adapter through a write to it.
    (void)::signal(SIGPIPE, SIG_IGN);

    SiteOptions site;
    std::string siteFault;
    try {
        ReadSiteOptions(configPath, secretPath, site);
    } catch (const std::exception& fault) {
        siteFault = fault.what();
    }
    if (!queuedFile.empty()) {
        try {
            AdapterLog log(logFile.empty() ? AdapterLog::Target::Syslog : AdapterLog::Target::File,
                           logFile);
            return RunRouterStage(filterPath, site, siteFault, queuedFile, log);
        } catch (const std::exception& failure) {
            std::cerr << "vorex-zmailer-filter: " << failure.what() << "\n";
            return 1;
        }
    }
    const std::chrono::seconds limit(jobLimit);
    if (given.count("check")) {
        try {
            return RunSetupCheck({configPath, secretPath, filterPath, site, siteFault, limit});
        } catch (const std::exception& failure) {
            std::cout << "PROBLEM " << failure.what() << " (fix: see the cause)\n";
            return 1;
        }
    }

    try {
        AdapterLog log(logFile.empty() ? AdapterLog::Target::Syslog : AdapterLog::Target::File,
                       logFile);
        // smtpserver's side of the conversation is fixed at start; the rest
        // is read again for each filter, so that an edit of the file counts
        // from the next filter on.
        Supervisor supervisor({{}, {}, site.errorAction, site.hungry, limit, site.basedir}, log);
        supervisor.SetReader([&](SupervisorSettings& settings) {
            ReadForNextFilter(configPath, secretPath, filterPath, settings, log);
        });
        supervisor.Run();
        return 0;
    } catch (const std::exception& failure) {
        // smtpserver is gone or the system failed us; the filter child has
        // been killed and reaped with the supervisor. Nowhere left to answer
        // but the system log.
        AdapterLog(AdapterLog::Target::Syslog).Error(std::string("stopped: ") + failure.what());
        return 1;
    }
}
