// platform/log/LogClass.h: the program's logging facade, our stand-in for the
// suite's log library. Callers test a level, then compose and call forcedLog;
// nothing outside platform/log sees the logging back end.
// Initialize reports bad settings by returning false; nothing here throws.
#pragma once

#include <string>

#include <log4cxx/logger.h>

class LogClass
{
public:
    // Levels as the suite numbers them, for forcedLog.
    enum { Fatal = 1, Error = 2, Warn = 3, Info = 4, Debug = 5 };

    LogClass();
    LogClass(const LogClass&) = delete;
    LogClass& operator=(const LogClass&) = delete;

    bool isDebugEnabled() const { return logger->isDebugEnabled(); }
    bool isInfoEnabled() const { return logger->isInfoEnabled(); }
    bool isWarnEnabled() const { return logger->isWarnEnabled(); }
    bool isErrorEnabled() const { return logger->isErrorEnabled(); }
    bool isFatalEnabled() const { return logger->isFatalEnabled(); }

    // Writes text at the given level (1 fatal ... 5 debug) without testing
    // the level again; an unknown level number is written at error level.
    void forcedLog(int level, const std::string& text) const;

    // The component name that appears as this log's logger.
    void SetName(const std::string& name);
    const std::string& GetName() const { return name; }

    // Makes this log base's child "<base name>.ipc" (its lines go where
    // base's go) with its own level. False for an unknown level name.
    bool SetBase(const LogClass& base, const std::string& levelName);

    // Sends every log line of the process to target: the word "syslog" for
    // the system log with the named facility, otherwise a file that lines are
    // appended to. levelName is debug, info, warn, error or fatal in any
    // letter case. The two flags are accepted for the suite's signature and
    // have no effect here. False, and the old set-up kept, for an unknown
    // level or facility or a file that cannot be opened for appending.
    bool Initialize(const std::string& target, const std::string& levelName,
                    const std::string& facility, bool flagA, bool flagB,
                    const std::string& pattern);

private:
    std::string name;
    log4cxx::LoggerPtr logger;
};

// The program's log.
extern LogClass Log;

// The IPC library's own log, chained to the program's with SetBase.
LogClass& GetIpcLog();
