// platform/log/LogClass.cpp: LogClass over log4cxx. Every line of the process
// goes through the root logger's one appender; each LogClass is a named
// logger below it, so SetName and SetBase only pick loggers.
#include "platform/log/LogClass.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cctype>

#include <log4cxx/helpers/exception.h>
#include <log4cxx/helpers/loglog.h>
#include <log4cxx/helpers/outputstreamwriter.h>
#include <log4cxx/helpers/pool.h>
#include <log4cxx/level.h>
#include <log4cxx/logmanager.h>
#include <log4cxx/net/syslogappender.h>
#include <log4cxx/patternlayout.h>
#include <log4cxx/writerappender.h>

#include "platform/log/LogFileStream.h"

LogClass Log;

LogClass& GetIpcLog()
{
    static LogClass ipcLog;
    return ipcLog;
}

namespace
{

// The system log's ident is the name of the log that was initialised for it
// (the component name, "zmailer" unless --log-name says otherwise), tagged
// with the process id. openlog keeps the pointer, so the text lives here.
struct SyslogIdent {
    const LogClass* owner = nullptr;
    int facility = 0;
    std::string text;
};

SyslogIdent& Ident()
{
    static SyslogIdent ident;
    return ident;
}

void OpenSyslog(const LogClass& owner, int facility)
{
    SyslogIdent& ident = Ident();
    ident.owner = &owner;
    ident.facility = facility;
    ident.text = owner.GetName();
    ::openlog(ident.text.c_str(), LOG_PID, facility);
}

log4cxx::LevelPtr LevelByNumber(int level)
{
    switch (level) {
    case LogClass::Fatal:
        return log4cxx::Level::getFatal();
    case LogClass::Warn:
        return log4cxx::Level::getWarn();
    case LogClass::Info:
        return log4cxx::Level::getInfo();
    case LogClass::Debug:
        return log4cxx::Level::getDebug();
    default:
        return log4cxx::Level::getError();
    }
}

// Null for a name that is not one of the five levels.
log4cxx::LevelPtr LevelByName(std::string levelName)
{
    for (char& c : levelName)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (levelName == "debug")
        return log4cxx::Level::getDebug();
    if (levelName == "info")
        return log4cxx::Level::getInfo();
    if (levelName == "warn")
        return log4cxx::Level::getWarn();
    if (levelName == "error")
        return log4cxx::Level::getError();
    if (levelName == "fatal")
        return log4cxx::Level::getFatal();
    return log4cxx::LevelPtr();
}

// Until Initialize has chosen a target, nothing is logged: the back end
// would otherwise look for configuration files of its own in the current
// directory and complain on standard error, which smtpserver reads as part
// of the conversation.
log4cxx::LoggerPtr QuietRootLogger()
{
    static const log4cxx::LoggerPtr root = [] {
        log4cxx::LogManager::getLoggerRepository()->setConfigured(true);
        // The back end's own complaints (an appender that failed to open,
        // say) would go to standard error as well.
        log4cxx::helpers::LogLog::setQuietMode(true);
        log4cxx::LoggerPtr logger = log4cxx::Logger::getRootLogger();
        logger->setLevel(log4cxx::Level::getOff());
        return logger;
    }();
    return root;
}

} // namespace

LogClass::LogClass() : logger(QuietRootLogger()) {}

void LogClass::forcedLog(int level, const std::string& text) const
{
    // The file appender throws when a line cannot be written (disk full, I/O
    // error). Logging must never change an answer or end the process: the
    // driver's failure handler logs too, and a throw from there would abort
    // the filter. The line is lost; that is all a full log disk costs.
    try {
        logger->forcedLog(LevelByNumber(level), text);
    } catch (const log4cxx::helpers::IOException&) {
    }
}

void LogClass::SetName(const std::string& newName)
{
    name = newName;
    logger = name.empty() ? log4cxx::Logger::getRootLogger() : log4cxx::Logger::getLogger(name);
    if (Ident().owner == this)
        OpenSyslog(*this, Ident().facility);
}

bool LogClass::SetBase(const LogClass& base, const std::string& levelName)
{
    log4cxx::LevelPtr level = LevelByName(levelName);
    if (!level)
        return false;
    // A child logger of base's, so that its lines go where base's go.
    SetName(base.name.empty() ? std::string("ipc") : base.name + ".ipc");
    logger->setLevel(level);
    return true;
}

bool LogClass::Initialize(const std::string& target, const std::string& levelName,
                          const std::string& facility, bool, bool, const std::string& pattern)
{
    log4cxx::LevelPtr level = LevelByName(levelName);
    if (!level)
        return false;

    log4cxx::LayoutPtr layout = std::make_shared<log4cxx::PatternLayout>(pattern);
    log4cxx::AppenderPtr appender;
    if (target == "syslog") {
        int facilityCode = log4cxx::net::SyslogAppender::getFacility(facility);
        if (facilityCode < 0)
            return false;
        appender = std::make_shared<log4cxx::net::SyslogAppender>(layout, facilityCode);
        OpenSyslog(*this, facilityCode);
    } else {
        // Opened here once, safely, and logged to through that descriptor.
        // The refusal's cause cannot go to a log that is not set up, nor to
        // standard error (smtpserver reads it as the conversation): it goes
        // to the system log.
        std::string cause;
        const int fd = OpenLogFile(target, cause);
        if (fd < 0) {
            ::syslog(LOG_MAIL | LOG_ERR, "%s", cause.c_str());
            return false;
        }
        log4cxx::helpers::OutputStreamPtr stream = MakeDescriptorStream(fd);
        auto writerAppender = std::make_shared<log4cxx::WriterAppender>();
        writerAppender->setLayout(layout);
        writerAppender->setWriter(std::make_shared<log4cxx::helpers::OutputStreamWriter>(stream));
        // Every line must be in the file when the reply goes out.
        writerAppender->setImmediateFlush(true);
        log4cxx::helpers::Pool pool;
        writerAppender->activateOptions(pool);
        appender = writerAppender;
    }

    log4cxx::LoggerPtr root = log4cxx::Logger::getRootLogger();
    root->removeAllAppenders();
    root->addAppender(appender);
    root->setLevel(level);
    return true;
}
