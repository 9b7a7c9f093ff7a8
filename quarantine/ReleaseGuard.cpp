// quarantine/ReleaseGuard.cpp: ZMailer's files are root's, read by name;
// only the entries are the account's.
#include "ReleaseGuard.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <vector>

#include <boost/asio/ip/address.hpp>

#include "shared/zmailer/ZmailerConfig.h"

namespace
{

const std::size_t MaxSecret = 4096;

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
    const std::string conf = ZmailerConfPath(zmailerConf);
    std::vector<std::string> lines;
    if (!ReadConfigLines(conf, lines)) {
        if (zmailerConf.empty() && errno == ENOENT)
            return "no ZMailer installation (" + conf + ")";
        throw std::invalid_argument("can not read " + conf);
    }
    const ZmailerVariables variables = ParseZmailerConf(lines);
    const auto share = variables.find("MAILSHARE");
    if (share == variables.end())
        throw std::invalid_argument(conf + " has no MAILSHARE");
    const std::string smtpserverConf = share->second + "/smtpserver.conf";
    std::vector<std::string> serverLines;
    (void)ReadConfigLines(smtpserverConf, serverLines); // unreadable: no filter named, refused below
    for (const ContentFilterEntry& entry : ContentFilterEntries(serverLines, variables))
        if (::access(entry.program.c_str(), X_OK) == 0)
            return "content filter " + entry.program + " in " + smtpserverConf;
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
