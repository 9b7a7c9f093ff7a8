// platform/log/LogCapture.cpp: an in-memory appender for tests.
#include "platform/log/LogCapture.h"

#include <mutex>

#include <log4cxx/appenderskeleton.h>
#include <log4cxx/helpers/pool.h>
#include <log4cxx/logger.h>
#include <log4cxx/patternlayout.h>
#include <log4cxx/spi/loggingevent.h>

namespace
{

class MemoryAppender : public log4cxx::AppenderSkeleton
{
public:
    std::vector<std::string> lines;

    void close() override {}
    bool requiresLayout() const override { return true; }

protected:
    void append(const log4cxx::spi::LoggingEventPtr& event, log4cxx::helpers::Pool& pool) override
    {
        log4cxx::LogString line;
        getLayout()->format(line, event, pool);
        if (!line.empty() && line.back() == '\n')
            line.pop_back();
        lines.push_back(line);
    }
};

} // namespace

struct LogCapture::Impl {
    std::shared_ptr<MemoryAppender> appender = std::make_shared<MemoryAppender>();
    log4cxx::LevelPtr oldLevel;
};

LogCapture::LogCapture() : impl(std::make_unique<Impl>())
{
    impl->appender->setLayout(std::make_shared<log4cxx::PatternLayout>("%p %x - %m%n"));
    log4cxx::LoggerPtr root = log4cxx::Logger::getRootLogger();
    impl->oldLevel = root->getLevel();
    root->setLevel(log4cxx::Level::getDebug());
    root->addAppender(impl->appender);
}

LogCapture::~LogCapture()
{
    log4cxx::LoggerPtr root = log4cxx::Logger::getRootLogger();
    root->removeAppender(impl->appender);
    root->setLevel(impl->oldLevel);
}

std::vector<std::string> LogCapture::Lines() const
{
    return impl->appender->lines;
}

std::string LogCapture::Text() const
{
    std::string text;
    for (const std::string& line : impl->appender->lines)
        text += line + "\n";
    return text;
}

void LogCapture::Clear()
{
    impl->appender->lines.clear();
}
