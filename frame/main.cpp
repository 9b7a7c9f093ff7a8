// frame/main.cpp: the filter driver. Brings the process up, feeds job lines
// to the message job (content-filter mode) or runs the one router-stage job,
// and turns any failure into the error-action reply, a standard-error line
// and exit status 1. The only place that catches.
#include <pwd.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>

#include "check/VxWorker.h"
#include "frame/FilterSettings.h"
#include "frame/Options.h"
#include "frame/Protocol.h"
#include "platform/ipc/Connection.h"
#include "platform/log/LogClass.h"

namespace
{

// A job line holds at most 4,111 bytes; a longer line reaches the job in
// pieces of that size.
const int LineBufferSize = 4112;

void ResolveUser(FilterSettings& settings)
{
    if (settings.user.empty())
        return;
    const struct passwd* account = ::getpwnam(settings.user.c_str());
    if (account == nullptr)
        throw std::domain_error("fail to find uid/gid for user " + settings.user +
                                ". getpwnam error");
    settings.uid = static_cast<int32_t>(account->pw_uid);
    settings.gid = static_cast<int32_t>(account->pw_gid);
}

void RunJobs(char* line)
{
    VxWorker worker(receiverId);
    if (filterSettings.file.empty()) {
        for (;;) {
            WriteHungry(filterSettings.interface);
            if (std::fgets(line, LineBufferSize, stdin) == nullptr)
                break;
            const std::size_t length = std::strlen(line);
            if (length > 0 && line[length - 1] == '\n')
                line[length - 1] = '\0';
            worker.ProcessFile(line);
        }
    } else {
        worker.ProcessFile(filterSettings.file.c_str());
    }
    if (Log.isDebugEnabled())
        Log.forcedLog(LogClass::Debug, "Shutdown in progress...");
}

} // namespace

int main(int argc, char** argv)
{
    char line[LineBufferSize];
    std::memset(line, 0, sizeof line);
    ::umask(002);
    Log.SetName("zmailer");
    try {
        ParseOptions(argc, argv, filterSettings);
        ResolveUser(filterSettings);
        RunJobs(line);
        if (Log.isDebugEnabled())
            Log.forcedLog(LogClass::Debug, "Success shutdown");
        return 0;
    } catch (const std::exception& failure) {
        WriteReply(filterSettings.errorAction, "Internal error");
        if (Log.isFatalEnabled())
            Log.forcedLog(LogClass::Fatal, std::string("error : ") + failure.what());
        const std::string errorLine = std::string("error: ") + failure.what() + "\n";
        // Standard error is unbuffered here; nothing is left to flush.
        (void)Connection::Write(2, errorLine.data(), errorLine.size(), nullptr, nullptr);
        return 1;
    }
}
