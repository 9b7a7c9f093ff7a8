// adapter/RouterStage.cpp: one queued file, one filter run.
#include "adapter/RouterStage.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
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
    const std::vector<std::string> argv = RouterCommand(filterPath, site, file);
    const std::vector<std::string> env = FilterEnvironment(site);
    std::vector<char*> args = Pointers(argv), envp = Pointers(env);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    // The filter reads no input in this mode; its output is the router's.
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    pid_t pid = -1;
    const int rc = ::posix_spawn(&pid, args[0], &actions, nullptr, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0)
        throw std::domain_error("can not run " + filterPath + ":" + std::strerror(rc));
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0)
        if (errno != EINTR)
            throw std::domain_error(std::string("waitpid error:") + std::strerror(errno));
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
