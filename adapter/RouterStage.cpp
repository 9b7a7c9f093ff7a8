// adapter/RouterStage.cpp: one queued file, one filter run.
#include "adapter/RouterStage.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "adapter/FilterChild.h"
#include "frame/Protocol.h"
#include "shared/zmailer/ReleaseMark.h"

namespace
{

// Whether file (relative to the router's queue, our current directory)
// is a release: root's, and its mark in the postoffice matches it.
bool TakeRelease(const std::string& file, std::string& entry)
{
    const Fd queued(::open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status;
    if (!queued.IsValid() || ::fstat(queued.Get(), &status) != 0 || !S_ISREG(status.st_mode) ||
        status.st_uid != 0)
        return false;
    const Fd postoffice(::open("..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!postoffice.IsValid())
        return false;
    try {
        const Fd marks = OpenReleaseMarks(postoffice.Get(), ReleaseMarkFolder, false);
        return TakeReleaseMark(marks.Get(), queued.Get(), entry);
    } catch (const std::domain_error&) {
        return false; // no marks, or not root's: every file is checked
    }
}

} // namespace

int RunRouterStage(const std::string& filterPath, const SiteOptions& site,
                   const std::string& siteFault, const std::string& file, AdapterLog& log)
{
    std::string entry;
    if (TakeRelease(file, entry)) {
        std::string shown;
        for (char c : entry)
            shown += c >= 0x20 && c < 0x7f ? c : '?';
        log.Warn("routed " + file + " without a check: released from quarantine entry " + shown);
        const std::string pass = ReplyLine(0);
        return WriteAll(1, pass.data(), pass.size()) ? 0 : 1;
    }
    if (!siteFault.empty())
        throw std::domain_error(siteFault);
    // The filter reads no input in this mode; its output is the router's.
    const Fd none(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    const int stdio[3] = {none.Get(), 1, 2};
    std::string failure;
    const pid_t pid =
        StartChild(stdio, RouterCommand(filterPath, site, file), FilterEnvironment(site), failure);
    if (pid < 0)
        throw std::domain_error(failure);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0)
        if (errno != EINTR)
            throw std::domain_error(std::string("waitpid error:") + std::strerror(errno));
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
