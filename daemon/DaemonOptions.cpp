// daemon/DaemonOptions.cpp: numbers are decimal digits within a
// bound, texts that reach an answer line are one line. The test-only options
// need --test-engine, which stands alone: a production OPTIONS line can
// neither fix the verdict nor run without a real engine.
#include "DaemonOptions.h"

#include <cstdint>
#include <cstdlib>
#include <stdexcept>

#include "ClamdEngine.h"
#include "DaemonLog.h"
#include "ReferenceEngine.h"
#include "RspamdEngine.h"
#include "SpamdEngine.h"

namespace po = boost::program_options;

const char* const DefaultsFile = "/etc/default/quelt-refd";
const std::vector<std::string> UnitOptions = {"--basedir", "/var/vorex", "--facility", "mail"};

namespace
{

const char* const TestOnly[] = {"verdict", "note", "delay-ms", "add-header"};

// Decimal digits only, no sign, at most max.
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

po::options_description DaemonOptionTable()
{
    po::options_description daemon("Options");
    daemon.add_options()("help", "this text")("version", "the version, then exit")(
        "basedir", po::value<std::string>()->default_value("/var/vorex"),
        "base directory: DIR/quelt.sock, DIR/msgs")(
        "clamd", po::value<std::vector<std::string>>(),
        "ClamAV's clamd: its socket PATH or HOST:PORT; repeated: a farm")(
        "spamd", po::value<std::vector<std::string>>(),
        "SpamAssassin's spamd: its socket PATH or HOST:PORT; repeated: a farm")(
        "rspamd", po::value<std::vector<std::string>>(),
        "rspamd's normal worker: its socket PATH or HOST:PORT; repeated: a farm")(
        "spam-reject", po::value<std::string>(),
        "reject spam scoring SCORE or more (default: tag only)")(
        "spam-max-size", po::value<std::string>()->default_value("524288"),
        "larger messages skip the spam checks (BYTES)")(
        "limits-exceeded", po::value<std::string>()->default_value("tempfail"),
        "clamd's size-limit find: reject|tempfail|pass")(
        "engine-timeout", po::value<std::string>()->default_value("20"),
        "SECONDS for all engines of one message")(
        "revive-seconds", po::value<std::string>()->default_value("5"),
        "a failed farm member gets no mail for SECONDS, then is probed")(
        "max-checks", po::value<std::string>()->default_value("16"),
        "connections served at once")("keep-hours", po::value<std::string>()->default_value("72"),
                                      "remove kept entries older than N hours")(
        "user", po::value<std::string>(), "account to run as (the daemon binds first when root)")(
        "facility", po::value<std::string>()->default_value("mail"),
        "syslog facility")("log-stderr", "log to standard error, not syslog")(
        "metrics", po::value<std::string>(),
        "serve Prometheus metrics at http://HOST:PORT/metrics (default: off)")(
        "log-format", po::value<std::string>()->default_value("plain"),
        "the line per message: plain|json")(
        "log-addresses", "JSON lines name the envelope's sender and recipients");
    po::options_description check("Checking the set-up");
    check.add_options()("check", "check the whole set-up (see quelt-refd(8)), then exit")(
        "defaults-file", po::value<std::string>()->default_value(DefaultsFile),
        "where --check reads OPTIONS=\"...\" when no daemon option is given")(
        "zmailer-conf", po::value<std::string>(),
        "ZMailer's zmailer.conf (default: $ZCONFIG, else /etc/zmailer.conf)")(
        "filter", po::value<std::string>()->default_value("/usr/sbin/vorex-zmailer"),
        "the filter --check runs test messages through");
    po::options_description tests("Test-only options (never for production: a fixed verdict "
                                  "passes mail unchecked)");
    tests.add_options()("test-engine",
                        "no real engine: find only the anti-virus test string")(
        "verdict", po::value<std::string>(), "answer N to every message; .msg is left alone")(
        "note", po::value<std::string>(), "the note of every answer")(
        "delay-ms", po::value<std::string>(), "wait N milliseconds before each answer")(
        "add-header", po::value<std::string>(),
        "header line 'Name: value' put on top of a clean .msg");
    daemon.add(check).add(tests);
    return daemon;
}

po::variables_map ReadOptionWords(const std::vector<std::string>& words)
{
    po::variables_map given;
    try {
        po::store(po::command_line_parser(words).options(DaemonOptionTable()).run(), given);
        po::notify(given);
    } catch (const po::error& failure) {
        throw std::invalid_argument(failure.what());
    }
    return given;
}

DaemonConfig BuildDaemonConfig(const po::variables_map& given)
{
    auto text = [&](const char* name) {
        return given.count(name) ? given[name].as<std::string>() : std::string();
    };
    DaemonConfig config;
    config.testEngine = given.count("test-engine") != 0;
    for (const char* option : TestOnly)
        if (given.count(option) && !config.testEngine)
            throw std::invalid_argument(std::string("--") + option +
                                        " is a test-only option: it needs --test-engine");
    const bool realEngine = given.count("clamd") || given.count("spamd") || given.count("rspamd");
    if (config.testEngine && realEngine)
        throw std::invalid_argument("--test-engine is for tests alone, not with a real engine");
    if (!config.testEngine && !realEngine)
        throw std::invalid_argument(std::string("no engine: give --clamd, --spamd and/or --rspamd "
                                                "(OPTIONS in ") +
                                    DefaultsFile + ")");

    ServerSettings& server = config.server;
    server.baseDir = text("basedir");
    if (server.baseDir.empty())
        throw std::invalid_argument("--basedir needs a directory");
    if (server.baseDir.back() != '/')
        server.baseDir += '/';
    server.user = text("user");
    server.maxChecks = static_cast<int>(ParseNumber("--max-checks", text("max-checks"), 1024));
    server.keepHours = static_cast<int>(ParseNumber("--keep-hours", text("keep-hours"), 100000));
    if (server.maxChecks == 0)
        throw std::invalid_argument("--max-checks needs at least 1");
    if (given.count("delay-ms"))
        server.delayMs = static_cast<int>(ParseNumber("--delay-ms", text("delay-ms"), 3600 * 1000));
    config.facility = FacilityByName(text("facility"));
    if (config.facility < 0)
        throw std::invalid_argument("unknown --facility " + text("facility"));
    config.logStderr = given.count("log-stderr") != 0;
    server.metricsListen = text("metrics");
    const std::size_t colon = server.metricsListen.rfind(':');
    if (given.count("metrics") &&
        (colon == std::string::npos || colon == 0 || colon + 1 == server.metricsListen.size() ||
         server.metricsListen.find_first_not_of("0123456789", colon + 1) != std::string::npos))
        throw std::invalid_argument("--metrics needs HOST:PORT");

    CheckSettings& check = config.check;
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
        check.verdict = static_cast<uint32_t>(ParseNumber("--verdict", text("verdict"), UINT32_MAX));
    }
    check.note = text("note");
    if (!IsOneLine(check.note))
        throw std::invalid_argument("--note must be one line");

    const std::string format = text("log-format");
    if (format != "plain" && format != "json")
        throw std::invalid_argument("--log-format needs plain or json");
    check.logJson = format == "json";
    check.logAddresses = given.count("log-addresses") != 0;
    if (check.logAddresses && !check.logJson)
        throw std::invalid_argument("--log-addresses needs --log-format json");

    const std::string limits = text("limits-exceeded");
    if (limits != "reject" && limits != "tempfail" && limits != "pass")
        throw std::invalid_argument("--limits-exceeded needs reject, tempfail or pass");
    config.reviveSeconds =
        static_cast<int>(ParseNumber("--revive-seconds", text("revive-seconds"), 3600));
    if (config.reviveSeconds == 0)
        throw std::invalid_argument("--revive-seconds needs at least 1");
    // Every address of an engine's option joins that engine's pool.
    const auto addPool = [&](const char* option, const auto& makeOne) {
        std::vector<UpstreamPool::Upstream> upstreams;
        for (const std::string& address : given[option].as<std::vector<std::string>>())
            upstreams.push_back({makeOne(ResolveEngineAddress(address)), address});
        auto pool = std::make_unique<UpstreamPool>(std::move(upstreams),
                                                   std::chrono::seconds(config.reviveSeconds));
        config.pools.push_back(pool.get());
        config.engines.push_back(std::move(pool));
    };
    const LimitsAction limitsAction = limits == "reject" ? LimitsAction::Reject
                                      : limits == "pass" ? LimitsAction::Pass
                                                         : LimitsAction::Tempfail;
    if (given.count("clamd"))
        addPool("clamd", [&](EngineAddress address) -> std::unique_ptr<Engine> {
            return std::make_unique<ClamdEngine>(std::move(address), limitsAction);
        });
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
        config.spamReject = true;
    }
    if (given.count("spamd"))
        addPool("spamd", [&](EngineAddress address) -> std::unique_ptr<Engine> {
            return std::make_unique<SpamdEngine>(std::move(address), spam);
        });
    if (given.count("rspamd"))
        addPool("rspamd", [&](EngineAddress address) -> std::unique_ptr<Engine> {
            return std::make_unique<RspamdEngine>(std::move(address), spam.maxSize);
        });
    if (config.testEngine)
        config.engines.push_back(std::make_unique<ReferenceEngine>());
    config.server.pools = config.pools;
    return config;
}
