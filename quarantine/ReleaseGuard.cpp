// quarantine/ReleaseGuard.cpp: ZMailer's files are root's, read by name;
// only the entries are the account's.
#include "ReleaseGuard.h"

#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <vector>

#include <boost/asio/ip/address.hpp>

namespace
{

const std::size_t MaxSecret = 4096;

using Variables = std::map<std::string, std::string>;

// "$NAME", "${NAME}" and "$(NAME)" replaced by their values.
std::string Expand(const std::string& text, const Variables& variables)
{
    std::string out;
    for (std::size_t at = 0; at < text.size();) {
        if (text[at] != '$') {
            out += text[at++];
            continue;
        }
        std::size_t start = at + 1, end = start;
        const bool braced = start < text.size() && (text[start] == '{' || text[start] == '(');
        if (braced) {
            const char close = text[start] == '{' ? '}' : ')';
            end = text.find(close, ++start);
            end = end == std::string::npos ? text.size() : end;
        } else {
            while (end < text.size() &&
                   (std::isalnum(static_cast<unsigned char>(text[end])) || text[end] == '_'))
                ++end;
        }
        const auto found = variables.find(text.substr(start, end - start));
        const std::size_t next = braced ? std::min(end + 1, text.size()) : end;
        out += found != variables.end() ? found->second : text.substr(at, next - at);
        at = next;
    }
    return out;
}

} // namespace

SmtpTarget ParseLoopbackTarget(const std::string& text)
{
    const std::size_t colon = text.rfind(':');
    SmtpTarget target;
    target.host = text.substr(0, colon);
    if (target.host.size() >= 2 && target.host.front() == '[' && target.host.back() == ']')
        target.host = target.host.substr(1, target.host.size() - 2);
    const std::string port = colon == std::string::npos ? "" : text.substr(colon + 1);
    boost::system::error_code error;
    const auto address = boost::asio::ip::make_address(target.host, error);
    if (error || port.empty() || port.size() > 5 ||
        port.find_first_not_of("0123456789") != std::string::npos || std::stoi(port) == 0 ||
        std::stoi(port) > 65535)
        throw std::invalid_argument("--smtp " + text + ": not an IP address and port");
    if (!address.is_loopback())
        throw std::invalid_argument("--smtp " + text +
                                    ": not a loopback address; the secure hash would leave "
                                    "this host before a filter cuts it");
    target.port = static_cast<unsigned short>(std::stoi(port));
    return target;
}

std::string RequireContentFilter(const std::string& zmailerConf)
{
    const char* fromEnvironment = std::getenv("ZCONFIG");
    const std::string conf = !zmailerConf.empty() ? zmailerConf
                             : fromEnvironment != nullptr && *fromEnvironment != '\0'
                                 ? fromEnvironment
                                 : "/etc/zmailer.conf";
    std::ifstream in(conf);
    if (!in) {
        if (zmailerConf.empty() && errno == ENOENT)
            return "no ZMailer installation (" + conf + ")";
        throw std::invalid_argument("can not read " + conf);
    }
    Variables variables;
    for (std::string line; std::getline(in, line);) {
        const std::size_t equals = line.find('=');
        if (line.empty() || line[0] == '#' || equals == std::string::npos)
            continue;
        std::string value = line.substr(equals + 1);
        if (value.size() >= 2 && (value[0] == '"' || value[0] == '\'') && value.back() == value[0])
            value = value.substr(1, value.size() - 2);
        variables[line.substr(0, equals)] = value;
    }
    const auto share = variables.find("MAILSHARE");
    if (share == variables.end())
        throw std::invalid_argument(conf + " has no MAILSHARE");
    const std::string smtpserverConf = share->second + "/smtpserver.conf";
    std::ifstream server(smtpserverConf);
    for (std::string line; server && std::getline(server, line);) {
        if (line.compare(0, 5, "PARAM") != 0)
            continue;
        std::istringstream words(Expand(line, variables));
        std::string param, name, program;
        words >> param >> name >> program;
        for (char& c : name)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        if (name == "contentfilter" && ::access(program.c_str(), X_OK) == 0)
            return "content filter " + program + " in " + smtpserverConf;
    }
    throw std::invalid_argument(smtpserverConf +
                                " names no executable PARAM contentfilter: smtpserver would "
                                "deliver the secure hash unfiltered");
}

std::string ReadSecret(const std::string& path)
{
    std::ifstream in(path);
    std::string secret;
    if (!in || !std::getline(in, secret)) {
        const int error = errno;
        throw std::invalid_argument("can not read the secret " + path + ":" + std::strerror(error));
    }
    if (secret.empty() || secret.size() > MaxSecret)
        throw std::invalid_argument("the secret in " + path + " is empty or too long");
    for (char c : secret)
        if (c <= 0x20 || c > 0x7e)
            throw std::invalid_argument("the secret in " + path +
                                        " holds a blank or a byte that is not printable ASCII");
    return secret;
}
