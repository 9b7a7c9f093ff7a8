// tests/support/ChildProcess.h: runs a program as a child with its standard
// input, output and error on pipes, for tests that talk to the real binaries.
// Every read waits at most a generous bound, so that a broken program fails
// the test instead of hanging it: Wait then kills the child and Hung() says
// so. The bound is never a timing assertion.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

extern char** environ;

class ChildProcess
{
public:
    static constexpr int BoundMs = 20000;

    // workDir: where the child starts, empty for here. environment: the
    // child's whole environment ("NAME=value" each), empty for this one's.
    explicit ChildProcess(const std::vector<std::string>& argv, const std::string& workDir = "",
                          const std::vector<std::string>& environment = {})
    {
        // A child that ends early makes a write to it fail with EPIPE, which
        // Write handles, instead of killing the test.
        (void)::signal(SIGPIPE, SIG_IGN);
        int pipes[3][2]; // the child reads pipe 0 and writes the others
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        for (int fd = 0; fd < 3; ++fd) {
            if (::pipe2(pipes[fd], O_CLOEXEC) != 0)
                throw std::runtime_error("pipe failed");
            posix_spawn_file_actions_adddup2(&actions, pipes[fd][fd == 0 ? 0 : 1], fd);
            fds[fd] = pipes[fd][fd == 0 ? 1 : 0];
        }
        if (!workDir.empty())
            posix_spawn_file_actions_addchdir_np(&actions, workDir.c_str());
        std::vector<char*> args = Pointers(argv), env = Pointers(environment);
        const int rc = posix_spawn(&pid, args[0], &actions, nullptr, args.data(),
                                   environment.empty() ? environ : env.data());
        posix_spawn_file_actions_destroy(&actions);
        for (int fd = 0; fd < 3; ++fd)
            ::close(pipes[fd][fd == 0 ? 0 : 1]); // the child's ends: it has its own copies
        if (rc != 0)
            throw std::runtime_error("cannot start " + argv[0]);
    }

    // Killed and reaped, without waiting for its outputs: a child's own
    // children may hold them open.
    ~ChildProcess()
    {
        Signal(SIGKILL);
        (void)Reap();
        for (int fd : fds)
            ::close(fd); // -1 for those closed already: nothing to do
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool Hung() const { return hung; }
    pid_t Pid() const { return pid; }

    // Bytes that a child no longer reads (it has ended, EPIPE) are dropped:
    // such a child is judged by its output and status.
    void Write(const std::string& bytes)
    {
        for (std::size_t done = 0; done < bytes.size();) {
            const ssize_t n = ::write(fds[0], bytes.data() + done, bytes.size() - done);
            if (n < 0 && errno == EPIPE)
                return;
            if (n <= 0)
                throw std::runtime_error("write to child failed");
            done += static_cast<std::size_t>(n);
        }
    }

    // Reads standard output until it holds suffix; returns what came up to
    // and with it since the last call (all of it when the output ended or the
    // bound ran out first: the missing suffix shows in the text).
    std::string ReadStdoutUntil(const std::string& suffix) { return ReadUntil(1, suffix); }
    std::string ReadStderrUntil(const std::string& suffix) { return ReadUntil(2, suffix); }

    // Closes the input, collects both outputs to their ends and returns the
    // exit status (128 + signal when killed). A child whose outputs have not
    // ended within the bound is killed, and Hung() is true. Once only.
    int Wait(std::string* restOfStdout = nullptr, std::string* restOfStderr = nullptr)
    {
        ::close(std::exchange(fds[0], -1));
        hung = pid > 0 && !Collect(0, "");
        if (hung)
            Signal(SIGKILL);
        if (restOfStdout != nullptr)
            restOfStdout->swap(pending[1]);
        if (restOfStderr != nullptr)
            restOfStderr->swap(pending[2]);
        return Reap();
    }

    // Never signals after Wait: pid -1 would reach every process.
    void Signal(int sig)
    {
        if (pid > 0)
            ::kill(pid, sig);
    }

    // argv or an environment as posix_spawn takes it (valid while strings is).
    static std::vector<char*> Pointers(const std::vector<std::string>& strings)
    {
        std::vector<char*> pointers;
        for (const std::string& text : strings)
            pointers.push_back(const_cast<char*>(text.c_str()));
        pointers.push_back(nullptr);
        return pointers;
    }

private:
    // The exit status of a child that has ended or been killed, once.
    int Reap()
    {
        int status = 0;
        if (pid > 0)
            ::waitpid(std::exchange(pid, -1), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    // Reads both outputs into pending until output `until` holds suffix (0:
    // until both have ended; each is closed at its end); false when the bound
    // runs out first.
    bool Collect(int until, const std::string& suffix)
    {
        using namespace std::chrono;
        const auto deadline = steady_clock::now() + milliseconds(BoundMs);
        while ((until == 0 || pending[until].find(suffix) == std::string::npos) &&
               (fds[1] >= 0 || fds[2] >= 0)) {
            pollfd ready[2] = {{fds[1], POLLIN, 0}, {fds[2], POLLIN, 0}};
            const auto left = duration_cast<milliseconds>(deadline - steady_clock::now()).count();
            if (left <= 0 || ::poll(ready, 2, static_cast<int>(left)) <= 0)
                return false;
            char block[4096];
            for (int i = 1; i < 3; ++i) {
                const ssize_t n = ready[i - 1].revents ? ::read(fds[i], block, sizeof block) : -2;
                if (n > 0)
                    pending[i].append(block, static_cast<std::size_t>(n));
                else if (n != -2) // the end, or an error: this output is done
                    ::close(std::exchange(fds[i], -1));
            }
        }
        return true;
    }

    // The pending bytes of output 1 or 2 up to and with suffix, or all of
    // them without it.
    std::string ReadUntil(int output, const std::string& suffix)
    {
        (void)Collect(output, suffix);
        const std::size_t at = pending[output].find(suffix);
        std::string taken =
            pending[output].substr(0, at == std::string::npos ? at : at + suffix.size());
        pending[output].erase(0, taken.size());
        return taken;
    }

    pid_t pid = -1;
    bool hung = false;
    int fds[3] = {-1, -1, -1}; // our ends of the child's stdin, stdout, stderr
    std::string pending[3];    // what came from stdout and stderr, not yet taken
};
