// daemon/DaemonLog.cpp: syslog or standard error behind Say. Lines
// to standard error are written whole under a lock, so that threads never
// interleave within a line.
#include "DaemonLog.h"

#include <mutex>
#include <unistd.h>

#include "shared/fd/Fd.h"

namespace
{

bool logToStderr = false;
std::mutex stderrLock;

} // namespace

void OpenDaemonLog(bool toStderr, int facility)
{
    logToStderr = toStderr;
    if (!toStderr)
        ::openlog("quelt-refd", LOG_PID | LOG_NDELAY, facility);
}

void Say(int priority, const std::string& text)
{
    if (!logToStderr) {
        ::syslog(priority, "%s", text.c_str());
        return;
    }
    const std::string line = "quelt-refd: " + text + "\n";
    std::lock_guard<std::mutex> hold(stderrLock);
    (void)WriteAll(STDERR_FILENO, line.data(), line.size()); // nowhere left to report to
}

int FacilityByName(const std::string& name)
{
    static const struct {
        const char* name;
        int facility;
    } facilities[] = {{"mail", LOG_MAIL},     {"daemon", LOG_DAEMON}, {"user", LOG_USER},
                      {"local0", LOG_LOCAL0}, {"local1", LOG_LOCAL1}, {"local2", LOG_LOCAL2},
                      {"local3", LOG_LOCAL3}, {"local4", LOG_LOCAL4}, {"local5", LOG_LOCAL5},
                      {"local6", LOG_LOCAL6}, {"local7", LOG_LOCAL7}};
    for (const auto& known : facilities)
        if (name == known.name)
            return known.facility;
    return -1;
}
