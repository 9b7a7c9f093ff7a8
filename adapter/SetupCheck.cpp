// adapter/SetupCheck.cpp: the findings of --check, one line each.
#include "adapter/SetupCheck.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <stdexcept>

#include "adapter/Supervisor.h"
#include "platform/ipc/Connection.h"

namespace
{

// The smallest message smtpserver could hand over: envelope, headers, body.
const char TestMessage[] = "external\nrcvdfrom localhost (localhost [127.0.0.1])\nwith ESMTP\n"
                           "from <postmaster@localhost>\nto <postmaster@localhost>\nenv-end\n"
                           "From: postmaster@localhost\nTo: postmaster@localhost\n"
                           "Subject: vorex-zmailer-filter --check\n\n"
                           "A test message of the set-up check; it is never delivered.\n";

// A private directory with one spool file, both gone with the object.
class TestSpool
{
public:
    TestSpool()
    {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern =
            std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/vorex-check.XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr)
            throw std::domain_error("can not make " + pattern + ":" + std::strerror(errno));
        dir = pattern;
        path = dir + "/spool";
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        const bool written =
            fd >= 0 && Connection::Write(fd, TestMessage, sizeof TestMessage - 1, nullptr,
                                         nullptr) == static_cast<int32_t>(sizeof TestMessage - 1);
        if (fd < 0 || !written || ::close(fd) != 0)
            throw std::domain_error("can not write " + path + ":" + std::strerror(errno));
    }
    ~TestSpool()
    {
        (void)::unlink(path.c_str()); // a throw-away file in our own directory
        (void)::rmdir(dir.c_str());
    }
    TestSpool(const TestSpool&) = delete;
    TestSpool& operator=(const TestSpool&) = delete;

    std::string dir, path;
};

class Findings
{
public:
    void Ok(const std::string& what) { std::cout << "ok " << what << "\n"; }
    void Problem(const std::string& what, const std::string& fix)
    {
        std::cout << "PROBLEM " << what << " (fix: " << fix << ")\n";
        problems = true;
    }
    bool problems = false;
};

std::string ActionName(int32_t code)
{
    return code == 0 ? "pass" : code == 1 ? "reject" : code == 6 ? "discard" : "tempfail";
}

} // namespace

int RunSetupCheck(const CheckInputs& inputs)
{
    Findings found;
    const SiteOptions& site = inputs.site;
    if (inputs.siteFault.empty())
        found.Ok("options read from " + inputs.configPath + "; error action " +
                 ActionName(site.errorAction));
    else
        found.Problem(inputs.configPath + ": " + inputs.siteFault + "; jobs answered with " +
                          ActionName(site.errorAction),
                      "correct it; the options are vorex-zmailer's, see vorex-zmailer --help");
    if (site.secret.empty())
        found.Problem("no secret in " + inputs.secretPath + ": " + site.secretFault +
                          "; mail the daemon sends back is checked again",
                      "reinstall the package, which makes it, or write one random line to it, "
                      "mode 0600");
    else
        found.Ok("secret read from " + inputs.secretPath);
    const long margin = inputs.jobLimit.count() - site.timeout;
    const std::string limits = "job limit " + std::to_string(inputs.jobLimit.count()) +
                               " s against the filter's --timeout " + std::to_string(site.timeout) +
                               " s";
    if (margin < 40)
        found.Problem(limits + " leaves less than 40 s to rewrite a message",
                      "--timeout " + std::to_string(inputs.jobLimit.count() - 40) + " or less in " +
                          inputs.configPath);
    else
        found.Ok(limits);

    if (!site.read)
        return 1; // no options to try the filter with
    // What the next filter runs with; the secret travels in its environment
    // and is not shown.
    std::string command;
    for (const std::string& word : FilterCommand(inputs.filterPath, site))
        command += (command.empty() ? "" : " ") + word;
    found.Ok("a filter started now runs " + command +
             (site.secret.empty() ? "" : " (the secret in its environment)"));
    AdapterLog said(AdapterLog::Target::Memory);
    const TestSpool spool;
    std::string reply, startOutput;
    bool startFailed;
    {
        // No base directory: the check's filter is not swept after (it ends
        // with its job, and its entry with it).
        Supervisor supervisor(
            {FilterCommand(inputs.filterPath, site), FilterEnvironment(site), site.errorAction,
             true, inputs.jobLimit, ""},
            said);
        reply = supervisor.Answer(spool.path);
        startFailed = supervisor.StartFailed();
        startOutput = supervisor.StartOutput();
        supervisor.Finish();
    }
    reply.pop_back();
    std::string cause;
    for (const std::string& line : said.Kept())
        cause += "; " + line;
    if (startFailed)
        found.Problem("the filter does not start with the options in " + inputs.configPath + ": " +
                          startOutput,
                      "correct " + inputs.configPath);
    else if (reply.size() >= 15 && reply.compare(reply.size() - 15, 15, " Internal error") == 0)
        found.Problem("a test message was answered '" + reply + "'" + cause,
                      "quelt-refd --check names what the daemon lacks");
    else
        found.Ok("a test message was answered '" + reply + "'");
    return found.problems ? 1 : 0;
}
