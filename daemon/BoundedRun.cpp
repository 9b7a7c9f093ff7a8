// daemon/BoundedRun.cpp: posix_spawn with the pipe and /dev/null
// in place; the output is read until its end or the deadline, then the
// child is reaped (killed first past the deadline).
#include "BoundedRun.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

#include "EngineSocket.h"

extern char** environ;

RunOutcome RunBounded(const std::vector<std::string>& argv, int limitSeconds)
{
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
        int error = errno;
        throw std::domain_error(std::string("pipe error:") + std::strerror(error));
    }
    Fd readEnd(pipeFds[0]);
    Fd writeEnd(pipeFds[1]);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, writeEnd.Get(), 1);
    posix_spawn_file_actions_adddup2(&actions, writeEnd.Get(), 2);
    std::vector<char*> args;
    for (const std::string& word : argv)
        args.push_back(const_cast<char*>(word.c_str()));
    args.push_back(nullptr);
    RunOutcome outcome;
    const int failed = ::posix_spawn(&outcome.pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (failed != 0)
        throw std::domain_error("can not run " + argv[0] + ":" + std::strerror(failed));
    (void)writeEnd.Close(); // the child holds its copies: the read end sees its end

    const Deadline deadline = Clock::now() + std::chrono::seconds(limitSeconds);
    char block[4096];
    for (;;) {
        pollfd ready = {readEnd.Get(), POLLIN, 0};
        const int left = MillisecondsLeft(deadline);
        const int got = left > 0 ? ::poll(&ready, 1, left) : 0;
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0) {
            outcome.timedOut = true;
            (void)::kill(outcome.pid, SIGKILL); // ours, not reaped yet: the pid is still its
            break;
        }
        const ssize_t count = ::read(readEnd.Get(), block, sizeof block);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            break;
        if (outcome.output.size() < MaxOutput)
            outcome.output.append(block, std::min(static_cast<std::size_t>(count),
                                                  MaxOutput - outcome.output.size()));
    }
    int status = 0;
    while (::waitpid(outcome.pid, &status, 0) < 0 && errno == EINTR) {
    }
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return outcome;
}
