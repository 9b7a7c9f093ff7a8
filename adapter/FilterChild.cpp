// adapter/FilterChild.cpp: spawning, feeding, reading and ending the filter.
#include "adapter/FilterChild.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
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

// Closes every descriptor from first to last (both included) that is open.
// Async-signal-safe: the child between fork and exec calls it.
void CloseRange(unsigned first, unsigned last)
{
    if (first > last || ::close_range(first, last, 0) == 0)
        return;
    // A kernel before 5.9: one by one, up to the descriptor limit.
    rlimit limit;
    const unsigned top = ::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < 1048576
                             ? limit.rlim_cur
                             : 1048576;
    for (unsigned fd = first; fd <= last && fd < top; ++fd)
        (void)::close(static_cast<int>(fd)); // most are not open
}

// The child's side between fork and exec, async-signal-safe calls only: the
// three pipes become its standard descriptors and it keeps nothing else
// (the adapter's log, smtpserver's other descriptors, another child's pipes);
// it dies with the adapter, also when the adapter is killed, so that no
// filter goes on rewriting a spool file that smtpserver has given up on; it
// gets SIGPIPE's default back (ignored here). An errno on reportFd when the
// exec fails.
[[noreturn]] void RunChild(const int (&stdio)[3], int reportFd, pid_t adapter, char** args,
                           char** envp)
{
    int error = 0;
    for (int fd = 0; fd < 3 && error == 0; ++fd)
        if (::dup2(stdio[fd], fd) < 0)
            error = errno;
    if (error == 0) {
        // The report pipe stays until the exec (close-on-exec).
        CloseRange(3, static_cast<unsigned>(reportFd) - 1);
        CloseRange(static_cast<unsigned>(reportFd) + 1, ~0U);
        // Set before the check: an adapter that died before the death signal
        // was armed shows as a new parent, and the child goes at once.
        if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0)
            error = errno;
        else if (::getppid() != adapter)
            ::_exit(127);
    }
    struct sigaction byDefault = {};
    byDefault.sa_handler = SIG_DFL;
    if (error == 0 && ::sigaction(SIGPIPE, &byDefault, nullptr) != 0)
        error = errno;
    if (error == 0) {
        ::execve(args[0], args, envp);
        error = errno;
    }
    (void)!::write(reportFd, &error, sizeof error); // the parent reads the end of the pipe too
    ::_exit(127);
}

} // namespace

std::vector<char*> Pointers(const std::vector<std::string>& strings)
{
    std::vector<char*> pointers;
    for (const std::string& text : strings)
        pointers.push_back(const_cast<char*>(text.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

pid_t StartChild(const int (&stdio)[3], const std::vector<std::string>& argv,
                 const std::vector<std::string>& env, std::string& failure)
{
    // The child reports a failed exec here; the pipe's end says it ran.
    int report[2];
    if (::pipe2(report, O_CLOEXEC) != 0) {
        failure = std::string("pipe error:") + std::strerror(errno);
        return -1;
    }
    std::vector<char*> args = Pointers(argv), envp = Pointers(env);
    const pid_t adapter = ::getpid();
    const pid_t pid = ::fork();
    if (pid == 0)
        RunChild(stdio, report[1], adapter, args.data(), envp.data());
    const int forkError = errno;
    (void)::close(report[1]); // ours to read only
    if (pid < 0) {
        (void)::close(report[0]);
        failure = std::string("fork error:") + std::strerror(forkError);
        return -1;
    }
    int error = 0;
    ssize_t got;
    while ((got = ::read(report[0], &error, sizeof error)) < 0 && errno == EINTR)
        ;
    (void)::close(report[0]);
    if (got > 0) {
        while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR)
            ;
        failure = "can not run " + argv[0] + ":" + std::strerror(error);
        return -1;
    }
    return pid;
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
    // The child reads the first pipe and writes the others.
    const int stdio[3] = {pipes.fds[0][0], pipes.fds[1][1], pipes.fds[2][1]};
    pid = StartChild(stdio, argv, env, failure);
    if (pid < 0)
        return;
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

std::string FilterChild::Finish(Deadline deadline, bool killFirst,
                                const std::function<void(pid_t)>& whileDead)
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
    if (whileDead) {
        siginfo_t ended;
        int rc;
        while ((rc = ::waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT)) < 0 &&
               errno == EINTR)
            ;
        if (rc == 0)
            whileDead(pid);
    }
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR)
        ;
    pid = -1;
    return WIFEXITED(status) ? "exit status " + std::to_string(WEXITSTATUS(status))
                             : "killed by signal " + std::to_string(WTERMSIG(status));
}
