// adapter/SiteOptions.cpp: the configuration file, the secret, and the few
// filter options the adapter reads for itself.
#include "adapter/SiteOptions.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <boost/program_options.hpp>

#include "shared/zmailer/Secret.h"

extern char** environ;

namespace po = boost::program_options;

namespace
{

// The filter's options that the adapter reads; all others pass unread.
po::options_description KnownOptions()
{
    po::options_description known;
    known.add_options()("error-action,e", po::value<std::string>())(
        "interface", po::value<std::string>())("timeout,t", po::value<std::string>())(
        "file", po::value<std::string>())("hash", po::value<std::string>())(
        "basedir,b", po::value<std::string>());
    return known;
}

// The first line of a small root-owned file, without its line end.
std::string FirstLine(const std::string& path, std::string& fault)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) {
        fault = std::strerror(errno);
        return "";
    }
    char block[4096];
    const ssize_t count = ::read(fd, block, sizeof block);
    fault = count < 0 ? std::strerror(errno) : "";
    (void)::close(fd); // read only
    const std::string text(block, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    return text.substr(0, text.find('\n'));
}

} // namespace

int32_t ErrorActionCode(const std::string& text)
{
    const auto blank = [](unsigned char c) { return std::isspace(c) != 0; };
    const auto first = std::find_if_not(text.begin(), text.end(), blank);
    const auto last = std::find_if_not(text.rbegin(), text.rend(), blank).base();
    std::string name(first, std::max(first, last));
    std::transform(name.begin(), name.end(), name.begin(), ::tolower);
    const std::pair<const char*, int32_t> codes[] = {
        {"pass", 0}, {"reject", 1}, {"discard", 6}, {"tempfail", 8}};
    for (const auto& code : codes)
        if (name == code.first)
            return code.second;
    return -1;
}

void ReadSiteOptions(const std::string& configPath, const std::string& secretPath,
                     SiteOptions& site)
{
    site.secret = FirstLine(secretPath, site.secretFault);
    std::ifstream config(configPath);
    if (!config)
        throw std::invalid_argument("can not read " + configPath + ":" + std::strerror(errno));
    for (std::string line; std::getline(config, line);) {
        std::istringstream words(line.substr(0, line.find('#')));
        for (std::string word; words >> word;)
            site.tokens.push_back(word);
    }
    site.passOn = site.tokens;
    site.read = true;
    po::variables_map given;
    const po::options_description known = KnownOptions(); // the parse result points to it
    const po::parsed_options parsed =
        po::command_line_parser(site.tokens).options(known).allow_unregistered().run();
    po::store(parsed, given);
    site.passOn.clear();
    for (const po::option& option : parsed.options) {
        const std::string& key = option.string_key;
        if (key != "interface" && key != "hash")
            site.passOn.insert(site.passOn.end(), option.original_tokens.begin(),
                               option.original_tokens.end());
        if (key != "interface" && key != "error-action" && key != "file" && key != "hash")
            site.routerPassOn.insert(site.routerPassOn.end(), option.original_tokens.begin(),
                                     option.original_tokens.end());
    }
    // A secret written into the options travels the same way as the file's.
    if (given.count("hash") && site.secret.empty()) {
        site.secret = given["hash"].as<std::string>();
        site.secretFault.clear();
    }
    if (given.count("timeout"))
        site.timeout = std::stoi(given["timeout"].as<std::string>());
    if (given.count("basedir")) {
        site.basedir = given["basedir"].as<std::string>();
        if (site.basedir.empty() || site.basedir.back() != '/')
            site.basedir += '/';
    }
    site.hungry = !given.count("interface") || given["interface"].as<std::string>() != "0";
    site.errorActionText =
        given.count("error-action") ? given["error-action"].as<std::string>() : "";
    const int32_t code = given.count("error-action") ? ErrorActionCode(site.errorActionText) : 1;
    if (code < 0)
        throw std::invalid_argument("--error-action " + site.errorActionText +
                                    " is not pass, reject, discard or tempfail");
    site.errorAction = code;
}

std::vector<std::string> FilterCommand(const std::string& filter, const SiteOptions& site)
{
    std::vector<std::string> argv = {filter};
    argv.insert(argv.end(), site.passOn.begin(), site.passOn.end());
    argv.insert(argv.end(), {"--interface", "1"});
    return argv;
}

std::vector<std::string> RouterCommand(const std::string& filter, const SiteOptions& site,
                                       const std::string& file)
{
    std::vector<std::string> argv = {filter};
    argv.insert(argv.end(), site.routerPassOn.begin(), site.routerPassOn.end());
    argv.insert(argv.end(), {"--error-action", "tempfail", "--file", file});
    return argv;
}

std::vector<std::string> FilterEnvironment(const SiteOptions& site)
{
    const std::string prefix = std::string(SecretVariable) + "=";
    std::vector<std::string> env;
    for (char** entry = environ; *entry != nullptr; ++entry)
        if (std::strncmp(*entry, prefix.c_str(), prefix.size()) != 0)
            env.emplace_back(*entry);
    if (!site.secret.empty())
        env.push_back(prefix + site.secret);
    return env;
}
