// adapter/FilterChild.cpp: spawning, feeding, reading and ending the filter.
#include "adapter/FilterChild.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "platform/ipc/Connection.h"

namespace
{

// Closes the descriptor once; nothing to report for a pipe end we read.
void CloseFd(int& fd)
{
    if (fd >= 0)
        (void)::close(std::exchange(fd, -1));
}

// Both ends of the three pipes until the constructor hands ours over; the
// rest are closed when it returns (the child has its own copies).
struct Pipes {
    int fds[3][2] = {{-1, -1}, {-1, -1}, {-1, -1}};
    ~Pipes()
    {
        for (auto& pair : fds)
            for (int& fd : pair)
                CloseFd(fd);
    }
};

} // namespace

std::vector<char*> Pointers(const std::vector<std::string>& strings)
{
    std::vector<char*> pointers;
    for (const std::string& text : strings)
        pointers.push_back(const_cast<char*>(text.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

FilterChild::FilterChild(const std::vector<std::string>& argv,
                         const std::vector<std::string>& env, Sink stderrSink)
    : sink(std::move(stderrSink))
{
    Pipes pipes;
    for (auto& pair : pipes.fds)
        if (::pipe2(pair, O_CLOEXEC) != 0) {
            failure = std::string("pipe error:") + std::strerror(errno);
            return;
        }
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    // The child reads the first pipe and writes the others.
    for (int fd = 0; fd < 3; ++fd)
        posix_spawn_file_actions_adddup2(&actions, pipes.fds[fd][fd == 0 ? 0 : 1], fd);
    // SIGPIPE is ignored here (a child that is gone must not end us); the
    // filter gets its default back.
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    std::vector<char*> args = Pointers(argv), envp = Pointers(env);
    const int rc = ::posix_spawn(&pid, args[0], &actions, &attributes, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (rc != 0) {
        pid = -1;
        failure = "can not run " + argv[0] + ":" + std::strerror(rc);
        return;
    }
    input = std::exchange(pipes.fds[0][1], -1);
    output = std::exchange(pipes.fds[1][0], -1);
    errors = std::exchange(pipes.fds[2][0], -1);
}

FilterChild::~FilterChild()
{
    if (pid > 0) {
        (void)::kill(pid, SIGKILL); // it may have ended already: nothing to report
        (void)::waitpid(pid, nullptr, 0);
    }
    CloseFd(input);
    CloseFd(output);
    CloseFd(errors);
}

bool FilterChild::Send(const std::string& bytes)
{
    return Connection::Write(input, bytes.data(), bytes.size(), nullptr, nullptr) ==
           static_cast<int32_t>(bytes.size());
}

FilterChild::Event FilterChild::Next(std::string& line, Deadline deadline, int watchFd)
{
    for (;;) {
        switch (outputLines.Next(line)) {
        case LineBuffer::Take::Line:
            return Event::Line;
        case LineBuffer::Take::Overlong:
            return Event::Overlong;
        case LineBuffer::Take::End:
            return Event::End;
        case LineBuffer::Take::None:
            break;
        }
        bool watched = false;
        if (!Poll(deadline, watchFd, watched))
            return Event::Deadline;
        if (watched)
            return Event::Watched;
    }
}

bool FilterChild::Poll(Deadline deadline, int watchFd, bool& watched)
{
    using namespace std::chrono;
    pollfd ready[3] = {{output, POLLIN, 0}, {errors, POLLIN, 0}, {watchFd, POLLIN, 0}};
    for (;;) {
        int wait = -1;
        if (deadline != Deadline::max()) {
            const auto left = duration_cast<milliseconds>(deadline - steady_clock::now()).count();
            if (left <= 0)
                return false;
            wait = static_cast<int>(std::min<long long>(left, 3600 * 1000));
        }
        const int count = ::poll(ready, 3, wait);
        if (count < 0 && errno != EINTR)
            throw std::domain_error(std::string("poll error:") + std::strerror(errno));
        if (count > 0)
            break;
    }
    if (ready[1].revents != 0) {
        errorLines.Fill(errors);
        PassStderr();
        if (errorLines.InputEnded())
            CloseFd(errors); // poll skips a negative descriptor
    }
    if (ready[0].revents != 0)
        outputLines.Fill(output);
    if (outputLines.InputEnded())
        CloseFd(output);
    watched = ready[2].revents != 0;
    return true;
}

void FilterChild::PassStderr()
{
    std::string line;
    for (LineBuffer::Take take; (take = errorLines.Next(line)) == LineBuffer::Take::Line ||
                                take == LineBuffer::Take::Overlong;)
        sink(line);
}

std::string FilterChild::Finish(Deadline deadline, bool killFirst)
{
    CloseFd(input);
    if (killFirst)
        (void)::kill(pid, SIGKILL); // reaped below; it may have ended already
    std::string line;
    bool watched;
    // What the child still writes answers no job: dropped.
    while ((output >= 0 || errors >= 0) && Poll(deadline, -1, watched))
        for (LineBuffer::Take take; (take = outputLines.Next(line)) == LineBuffer::Take::Line ||
                                    take == LineBuffer::Take::Overlong;)
            ;
    int status = 0;
    if (output >= 0 || errors >= 0)
        (void)::kill(pid, SIGKILL); // past the deadline: no longer waited for
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR)
        ;
    pid = -1;
    return WIFEXITED(status) ? "exit status " + std::to_string(WEXITSTATUS(status))
                             : "killed by signal " + std::to_string(WTERMSIG(status));
}
