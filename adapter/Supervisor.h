// adapter/Supervisor.h: stands between smtpserver and the filter. Owns the
// filter child, a deadline per job, and the rule that every job line gets
// exactly one reply line and then "#hungry": the filter's own reply when it
// wrote one, else the error action's line with " Internal error", written
// here. A filter that ended, went silent past the job limit or failed to
// start is replaced for the next job; after a failed start the next start
// waits a second, and jobs meanwhile get the error action at once.
// Throws std::domain_error when smtpserver can no longer be written to or a
// poll or read fails.
#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "adapter/AdapterLog.h"
#include "adapter/FilterChild.h"
#include "adapter/LineBuffer.h"

struct SupervisorSettings {
    std::vector<std::string> filterCommand;     // empty: no usable filter
    std::vector<std::string> filterEnvironment; // holds the secret
    int32_t errorAction = 8;
    bool hungry = true; // smtpserver's side speaks interface 1
    std::chrono::seconds jobLimit{100};
    std::string basedir; // the filter's, ending in "/"; empty: not known
};

class Supervisor
{
public:
    Supervisor(SupervisorSettings settings, AdapterLog& log);
    ~Supervisor();
    Supervisor(const Supervisor&) = delete;
    Supervisor& operator=(const Supervisor&) = delete;

    // Called before each filter start to bring the filter command, the error
    // action and the base directory up to date (the site's file as it is
    // then); the interface towards smtpserver and the job limit stay.
    using Reader = std::function<void(SupervisorSettings& settings)>;
    void SetReader(Reader reader) { reread = std::move(reader); }

    // Relays job lines from descriptor 0 and replies to descriptor 1 until
    // the input ends; then lets the filter end.
    void Run();
    // The reply line (with its line end) for one job line.
    std::string Answer(const std::string& jobLine);
    // Whether the last answer came from a filter that failed to start, and
    // what that one said on standard error (or why it could not be run).
    bool StartFailed() const { return startFailed; }
    const std::string& StartOutput() const { return heldStderr; }
    // Closes the filter's input and waits, within the job limit, for its end.
    void Finish();

private:
    std::string FailureReply() const;
    bool StartFilter(Deadline deadline);
    // Ends the filter (killed first when kill is set) and logs why. In a job
    // begun at jobStart (the clock's seconds; 0: between jobs), the entries
    // it left are removed.
    void EndFilter(const std::string& why, bool kill, time_t jobStart = 0);
    // The next job line from smtpserver; false at the end of the input.
    bool NextJob(std::string& line, bool& overlong);

    SupervisorSettings settings;
    Reader reread;
    AdapterLog& log;
    std::unique_ptr<FilterChild> filter; // started and waiting for a job
    LineBuffer jobs;
    Deadline nextStart{};
    bool startFailed = false;
    bool starting = false; // the filter's standard error is held, not logged
    std::string heldStderr;
};
