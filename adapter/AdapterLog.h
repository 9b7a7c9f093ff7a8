// adapter/AdapterLog.h: where the adapter's lines and the filter's
// standard-error lines go: the system log (facility mail, ident
// vorex-zmailer-filter), a file (--log-file, for tests and admins), or, for
// --check, memory. Never standard output or error: smtpserver reads both.
// Throws std::domain_error when the log file cannot be opened.
#pragma once

#include <string>
#include <vector>

class AdapterLog
{
public:
    enum class Target { Syslog, File, Memory };

    AdapterLog(Target target, const std::string& path = "");
    ~AdapterLog();
    AdapterLog(const AdapterLog&) = delete;
    AdapterLog& operator=(const AdapterLog&) = delete;

    void Warn(const std::string& text);
    void Error(const std::string& text);
    // The error lines kept by a Memory log (the filter's standard error and
    // a failed start); warnings are dropped there.
    const std::vector<std::string>& Kept() const { return kept; }

private:
    void Write(int priority, const std::string& text);

    const Target target;
    int fd = -1;
    std::vector<std::string> kept;
};
