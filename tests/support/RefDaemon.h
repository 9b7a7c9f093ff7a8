// tests/support/RefDaemon.h: the reference daemon quelt-refd running on a
// base directory for one test (its test engine unless given a real one), started and ready (it has said that it
// listens) when the constructor returns (with what it logged before), stopped with SIGTERM at the
// end.
#pragma once

#include <signal.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/ChildProcess.h"

class RefDaemon
{
public:
    // runAs: a command that runs the daemon as another account (setpriv ...).
    RefDaemon(const std::string& basedir, std::vector<std::string> extraArgs = {},
              std::vector<std::string> runAs = {})
    {
        std::vector<std::string> argv = runAs;
        argv.insert(argv.end(), {QUELT_REFD, "--log-stderr", "--basedir", basedir});
        argv.insert(argv.end(), extraArgs.begin(), extraArgs.end());
        const auto named = [&](const char* option) {
            return std::find(extraArgs.begin(), extraArgs.end(), option) != extraArgs.end();
        };
        if (!named("--clamd") && !named("--spamd") && !named("--rspamd"))
            argv.push_back("--test-engine");
        process = std::make_unique<ChildProcess>(argv);
        // All of it when the daemon ends without listening.
        startLog = process->ReadStderrUntil("listening on");
        startLog += process->ReadStderrUntil("\n");
        if (startLog.find("listening on") == std::string::npos)
            throw std::runtime_error("quelt-refd did not start: " + startLog);
    }
    ~RefDaemon() { (void)Stop(nullptr); }
    RefDaemon(const RefDaemon&) = delete;
    RefDaemon& operator=(const RefDaemon&) = delete;

    // Stops the daemon and returns the status and what it logged (once).
    int Stop(std::string* log)
    {
        process->Signal(SIGTERM);
        return process->Wait(nullptr, log);
    }

    // What the daemon logged since the last read, up to and with text
    // (all of it when text never came within the bound).
    std::string ReadLogUntil(const std::string& text) { return process->ReadStderrUntil(text); }
    pid_t Pid() const { return process->Pid(); }
    // What the daemon logged up to and with its "listening on" line.
    std::string startLog;

private:
    std::unique_ptr<ChildProcess> process;
};
