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
#include <functional>
#include <stdexcept>
#include <string>
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
        int pipes[3][2];
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        for (int fd = 0; fd < 3; ++fd) {
            if (::pipe2(pipes[fd], O_CLOEXEC) != 0)
                throw std::runtime_error("pipe failed");
            posix_spawn_file_actions_adddup2(&actions, pipes[fd][fd == 0 ? 0 : 1], fd);
        }
        if (!workDir.empty())
            posix_spawn_file_actions_addchdir_np(&actions, workDir.c_str());
        std::vector<char*> args = Pointers(argv), env = Pointers(environment);
        int rc = posix_spawn(&pid, args[0], &actions, nullptr, args.data(),
                             environment.empty() ? environ : env.data());
        posix_spawn_file_actions_destroy(&actions);
        for (int fd = 0; fd < 3; ++fd)
            ::close(pipes[fd][fd == 0 ? 0 : 1]);
        stdinFd = pipes[0][1];
        stdoutFd = pipes[1][0];
        stderrFd = pipes[2][0];
        if (rc != 0)
            throw std::runtime_error("cannot start " + argv[0]);
    }

    ~ChildProcess()
    {
        CloseStdin();
        if (pid > 0) {
            ::kill(pid, SIGKILL);
            int status;
            ::waitpid(pid, &status, 0);
        }
        if (stdoutFd >= 0)
            ::close(stdoutFd);
        if (stderrFd >= 0)
            ::close(stderrFd);
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool Hung() const { return hung; }
    pid_t Pid() const { return pid; }

    // Bytes that a child no longer reads (it has ended, EPIPE) are dropped:
    // such a child is judged by its output and status.
    void Write(const std::string& bytes)
    {
        std::size_t done = 0;
        while (done < bytes.size()) {
            ssize_t n = ::write(stdinFd, bytes.data() + done, bytes.size() - done);
            if (n < 0 && errno == EPIPE)
                return;
            if (n <= 0)
                throw std::runtime_error("write to child failed");
            done += static_cast<std::size_t>(n);
        }
    }

    void CloseStdin()
    {
        if (stdinFd >= 0)
            ::close(stdinFd);
        stdinFd = -1;
    }

    // Reads standard output until it holds suffix; returns what came up to
    // and with it since the last call (all of it when the output ended or the
    // bound ran out first: the missing suffix shows in the text).
    std::string ReadStdoutUntil(const std::string& suffix) { return ReadUntil(outBuf, suffix); }
    std::string ReadStderrUntil(const std::string& suffix) { return ReadUntil(errBuf, suffix); }

    // Closes the input, collects both outputs to their ends and returns the
    // exit status (128 + signal when killed). A child whose outputs have not
    // ended within the bound is killed, and Hung() is true.
    int Wait(std::string* restOfStdout = nullptr, std::string* restOfStderr = nullptr)
    {
        CloseStdin();
        if (!Collect([] { return false; })) {
            hung = true;
            ::kill(pid, SIGKILL);
        }
        if (restOfStdout != nullptr)
            restOfStdout->swap(outBuf);
        if (restOfStderr != nullptr)
            restOfStderr->swap(errBuf);
        int status = 0;
        if (pid > 0)
            ::waitpid(pid, &status, 0);
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    // Never signals after Wait: pid -1 would reach every process.
    void Signal(int sig)
    {
        if (pid > 0)
            ::kill(pid, sig);
    }

private:
    static std::vector<char*> Pointers(const std::vector<std::string>& strings)
    {
        std::vector<char*> pointers;
        for (const std::string& text : strings)
            pointers.push_back(const_cast<char*>(text.c_str()));
        pointers.push_back(nullptr);
        return pointers;
    }

    // Reads both outputs into their buffers until done() holds or both have
    // ended (each is closed at its end); false when the bound runs out first.
    bool Collect(const std::function<bool()>& done)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(BoundMs);
        while (!done() && (stdoutFd >= 0 || stderrFd >= 0)) {
            pollfd fds[2] = {{stdoutFd, POLLIN, 0}, {stderrFd, POLLIN, 0}};
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0 || ::poll(fds, 2, static_cast<int>(left.count())) <= 0)
                return false;
            ReadSome(fds[0].revents, stdoutFd, outBuf);
            ReadSome(fds[1].revents, stderrFd, errBuf);
        }
        return true;
    }

    static void ReadSome(short revents, int& fd, std::string& pending)
    {
        if (revents == 0)
            return;
        char block[4096];
        ssize_t n = ::read(fd, block, sizeof block);
        if (n > 0) {
            pending.append(block, static_cast<std::size_t>(n));
        } else {
            ::close(fd);
            fd = -1;
        }
    }

    // The pending bytes up to and with suffix, or all of them without it.
    std::string ReadUntil(std::string& pending, const std::string& suffix)
    {
        (void)Collect([&] { return pending.find(suffix) != std::string::npos; });
        std::size_t at = pending.find(suffix);
        std::string taken = pending.substr(0, at == std::string::npos ? at : at + suffix.size());
        pending.erase(0, taken.size());
        return taken;
    }

    pid_t pid = -1;
    bool hung = false;
    int stdinFd = -1;
    int stdoutFd = -1;
    int stderrFd = -1;
    std::string outBuf;
    std::string errBuf;
};
