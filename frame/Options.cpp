// frame/Options.cpp: the option table, --help and --version, the start of
// logging and the start-up checks. The action rules built here live only
// while the command line is read; the settings keep just the action code.
#include "frame/Options.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/program_options.hpp>

#include "platform/log/LogClass.h"
#include "shared/conf/QueltConfParser.h"
#include "shared/zmailer/Secret.h"

namespace po = boost::program_options;

namespace
{

// Overwrites the bytes of every --hash value in argv, so that ps and
// /proc/PID/cmdline no longer show the secret. The parser reports the
// tokens it used in the order of argv; each is found again by walking argv
// from where the previous one was.
void HideSecret(const po::parsed_options& parsed, int argc, char** argv)
{
    int next = 1;
    for (const po::option& option : parsed.options) {
        const std::vector<std::string>& tokens = option.original_tokens;
        for (std::size_t i = 0; i < tokens.size(); ++i) {
            int at = next;
            while (at < argc && tokens[i] != argv[at])
                ++at;
            if (at == argc)
                break; // not a token of argv as such; nothing to find
            next = at + 1;
            if (option.string_key != "hash")
                continue;
            // The value as a token of its own ("--hash" "S"), or after the
            // first "=" of "--hash=S".
            char* value = i > 0 ? argv[at] : std::strchr(argv[at], '=');
            if (value != nullptr && i == 0)
                ++value;
            if (value != nullptr)
                std::memset(value, 0, std::strlen(value));
        }
    }
}

} // namespace

void ParseOptions(int argc, char** argv, FilterSettings& settings)
{
    // The ProcessingErrors category as object 0, its list set to the default.
    QueltConf::QueltConfParser actionRules;
    actionRules.SetObjects(
        {QueltConf::ActionsParser::OlValue(QueltConf::MakeProcessingErrors(), 0)});
    QueltConf::ActionsParser& actionsParser = actionRules.GetParser();
    actionsParser.SetDefaults();
    // --error-action writes straight into this item; nothing resizes the
    // item list before Parse reads it back.
    std::string& errorActionItem = actionsParser.GetObjects()[0].m_values[0];
    const std::string errorActionHelp =
        "action on errors. Valid actions:" + actionsParser.GetObjects()[0].m_valid_actions.Print();

    // Values needed only while logging is set up, and -Z, which is dropped.
    std::string logLevel;
    std::string ipcLogLevel;
    std::string facility;
    std::string zmailerConfig;

    const unsigned lineLength = po::options_description::m_default_line_length;
    po::options_description options("All options", lineLength, lineLength / 2);
    po::options_description_easy_init add = options.add_options();
    add("help,h", "generate help message");
    add("version,v", "print version string");
    add("user,u", po::value<std::string>(&settings.user)->default_value("vorex"),
        "use rname of vorex-quelt process");
    add("level,l", po::value<std::string>(&logLevel)->default_value("info"), "log level");
    add("id", po::value<std::string>(&receiverId), "unique Receiver/Sender id");
    add("log-name", po::value<std::string>(&logName), "component log name");
    add("log-filename", po::value<std::string>(&logFilename)->default_value("syslog"),
        "log filename or syslog");
    add("ipclevel,i", po::value<std::string>(&ipcLogLevel)->default_value("info"),
        "log level for ipc communication");
    add("facility,f", po::value<std::string>(&facility)->default_value("mail"), "syslog facility");
    add("basedir,b", po::value<std::string>(&settings.basedir)->default_value("/var/vorex"),
        "Quelt base directory");
    add("timeout,t", po::value<int32_t>(&settings.timeout)->default_value(30),
        "timeout for mail processing");
    add("file", po::value<std::string>(&settings.file),
        "file name for processing. To be defined when started from router stage.");
    add("hash", po::value<std::string>(&settings.hash),
        "value for Sender/SecureHash parameter (if Sender/UseSecureHash = yes). To be defined when "
        "started from router stage.");
    add("interface", po::value<int32_t>(&settings.interface)->default_value(1),
        "Version of smtp-server (when started as content filter). 0 for version 2.99.55 and "
        "below; 1 for version 2.99.56 and higher");
    add("error-action,e", po::value<std::string>(&errorActionItem)->default_value(errorActionItem),
        errorActionHelp.c_str());
    add(",Z", po::value<std::string>(&zmailerConfig), "ignored ZMailer configuration");

    // No positional option is declared: the parser passes bare arguments
    // (ZMailer's address) through unnamed, and store skips them.
    po::variables_map given;
    const po::parsed_options parsed = po::command_line_parser(argc, argv).options(options).run();
    po::store(parsed, given);
    // The secret may come in the environment instead, which no other account
    // can read (/proc/PID/environ is the owner's): the adapter and the router
    // stage hand it over that way. A --hash on the command line wins; the
    // variable is removed so that nothing this process starts inherits it.
    po::store(po::parse_environment(options,
                                    [](const std::string& name) {
                                        return name == SecretVariable ? std::string("hash")
                                                                      : std::string();
                                    }),
              given);
    (void)::unsetenv(SecretVariable);
    po::notify(given);
    HideSecret(parsed, argc, argv);

    if (given.count("help") != 0) {
        std::cout << "Usage: " << ProgramName << " [options] address\n\n" << options;
        std::cout.flush();
        std::exit(0);
    }
    if (given.count("version") != 0) {
        std::cout << ProgramName << VersionText << "\n";
        std::cout.flush();
        std::exit(0);
    }

    if (!Log.Initialize(logFilename, logLevel, facility, false, false, "%-7r [%t] %-5p %x - %m%n"))
        throw std::invalid_argument("Error in init log system");
    if (!logName.empty())
        Log.SetName(logName);
    // An unknown IPC level is as bad a log set-up as an unknown main level.
    if (!GetIpcLog().SetBase(Log, ipcLogLevel))
        throw std::invalid_argument("Error in init log system");

    // Read as unsigned, a negative interface is too large as well.
    if (static_cast<uint32_t>(settings.interface) > 1)
        throw std::invalid_argument("interface must be 0 or 1");
    if (settings.timeout <= 0)
        throw std::invalid_argument("timeout must be > 0");
    if (settings.basedir.empty() || settings.basedir.back() != '/')
        settings.basedir += '/';
    if (!actionsParser.Parse())
        throw std::invalid_argument("error in param error-action");
    if (!settings.file.empty() && settings.hash.empty())
        throw std::invalid_argument(
            "--file is defined, but --hash is not! Please, set it from Sender/SecureHash param.");

    // Last, so that every failure above is still answered with code 0.
    settings.errorAction = actionRules.GetMainAction(0);
}
