// adapter/AdapterLog.cpp: one line per call to the chosen target.
#include "adapter/AdapterLog.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "platform/ipc/Connection.h"

namespace
{
const char Ident[] = "vorex-zmailer-filter";
}

AdapterLog::AdapterLog(Target target, const std::string& path) : target(target)
{
    if (target == Target::Syslog)
        ::openlog(Ident, LOG_PID, LOG_MAIL);
    if (target != Target::File)
        return;
    fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0)
        throw std::domain_error("can not open log file " + path + ":" + std::strerror(errno));
}

AdapterLog::~AdapterLog()
{
    if (fd >= 0)
        (void)::close(fd); // every line went out with its own write
    if (target == Target::Syslog)
        ::closelog();
}

void AdapterLog::Warn(const std::string& text)
{
    Write(LOG_WARNING, text);
}

void AdapterLog::Error(const std::string& text)
{
    Write(LOG_ERR, text);
}

void AdapterLog::Write(int priority, const std::string& text)
{
    if (target == Target::Syslog) {
        ::syslog(priority, "%s", text.c_str());
    } else if (target == Target::Memory) {
        if (priority == LOG_ERR)
            kept.push_back(text);
    } else {
        const std::string line =
            std::string(Ident) + "[" + std::to_string(::getpid()) + "]: " + text + "\n";
        // A log line that cannot be written has nowhere else to go.
        (void)Connection::Write(fd, line.data(), line.size(), nullptr, nullptr);
    }
}
