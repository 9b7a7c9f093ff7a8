// bench/roundtrip.cpp: one round trip per line of standard input, with the
// answer written to standard output, against one of two peers:
//  - the daemon alone: connect to BASEDIR/quelt.sock, send "CHECK <dir>",
//    read the answer. No files are made; run it against a daemon that
//    answers a fixed verdict without looking at the entry.
//  - the daemon on prepared entries (--entries): each line of input is an
//    entry directory that already holds ".envelope" and ".msg"; one request
//    at a time, as one filter sends them.
//  - a content-filter program, driven as smtpserver drives it: one process
//    for the whole run, a job line written only after "#hungry", and every
//    line up to the next "#hungry" taken as that job's answer. At the end
//    of input the program's input is closed; it must end with status 0.
// Usage: bench-roundtrip BASEDIR < lines
//        bench-roundtrip --entries BASEDIR < entry directories
//        bench-roundtrip --smtpserver PROGRAM [ARGUMENT...] < lines
// Exit 0, or 1 with the cause on stderr.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "BenchIo.h"

extern char** environ;

namespace
{

const std::string Hungry = "#hungry\n";

// A pipe; both ends close with it unless closed before.
struct Pipe {
    Pipe() : Pipe(Make()) {}
    bench::Fd readEnd, writeEnd;

private:
    explicit Pipe(std::array<int, 2> ends) : readEnd(ends[0]), writeEnd(ends[1]) {}
    static std::array<int, 2> Make()
    {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0)
            bench::FailSystem("pipe", errno);
        return {ends[0], ends[1]};
    }
};

// A content-filter program on two pipes: its standard input and output.
class FilterProgram
{
public:
    explicit FilterProgram(char** argv) : name(argv[0])
    {
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, input.readEnd.Get(), 0);
        posix_spawn_file_actions_adddup2(&actions, output.writeEnd.Get(), 1);
        const int error = ::posix_spawn(&pid, argv[0], &actions, nullptr, argv, environ);
        posix_spawn_file_actions_destroy(&actions);
        if (error != 0) {
            pid = -1;
            bench::FailSystem("start " + name, error);
        }
        input.readEnd.Close("pipe");
        output.writeEnd.Close("pipe");
    }
    ~FilterProgram()
    {
        if (pid > 0) { // exception path only; Finish() reaps it otherwise
            (void)::kill(pid, SIGKILL);
            (void)::waitpid(pid, nullptr, 0);
        }
    }
    FilterProgram(const FilterProgram&) = delete;
    FilterProgram& operator=(const FilterProgram&) = delete;

    // Everything the program writes up to and including the next "#hungry"
    // line, without that line.
    std::string UntilHungry()
    {
        std::string answer;
        for (;;) {
            const std::size_t end = pending.find('\n');
            if (end != std::string::npos) {
                const std::string line = pending.substr(0, end + 1);
                pending.erase(0, end + 1);
                if (line == Hungry)
                    return answer;
                answer += line;
                continue;
            }
            char block[4096];
            const ssize_t count = ::read(output.readEnd.Get(), block, sizeof block);
            if (count < 0 && errno == EINTR)
                continue;
            if (count < 0)
                bench::FailSystem("read from " + name, errno);
            if (count == 0)
                throw std::runtime_error(name + " ended before \"#hungry\"; it wrote '" +
                                         answer + pending + "'");
            pending.append(block, static_cast<std::size_t>(count));
        }
    }

    void Send(const std::string& job)
    {
        bench::WriteAll(input.writeEnd.Get(), job.data(), job.size(), name);
    }

    // Closes its input; it must then end with status 0 and nothing more said.
    void Finish()
    {
        input.writeEnd.Close(name);
        char block[4096];
        ssize_t count;
        while ((count = ::read(output.readEnd.Get(), block, sizeof block)) > 0)
            pending.append(block, static_cast<std::size_t>(count));
        int status = 0;
        while (::waitpid(pid, &status, 0) < 0)
            if (errno != EINTR)
                bench::FailSystem("wait for " + name, errno);
        pid = -1;
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || !pending.empty())
            throw std::runtime_error(name + " ended with status " + std::to_string(status) +
                                     " after writing '" + pending + "' at the end of input");
    }

private:
    std::string name;
    Pipe input, output;
    pid_t pid = -1;
    std::string pending;
};

void DriveFilter(char** argv)
{
    // A program that is gone shows as a failed write, not as SIGPIPE.
    (void)::signal(SIGPIPE, SIG_IGN);
    FilterProgram program(argv);
    const std::string early = program.UntilHungry();
    if (!early.empty())
        throw std::runtime_error(std::string(argv[0]) + " wrote '" + early + "' before a job");
    char line[4112];
    while (std::fgets(line, sizeof line, stdin) != nullptr) {
        program.Send(line);
        const std::string answer = program.UntilHungry();
        bench::WriteAll(1, answer.data(), answer.size(), "standard output");
    }
    program.Finish();
}

// With prepared false, every request names an entry that does not exist;
// with it, the request names the entry on the input line.
void AskDaemonPerLine(const char* baseArgument, bool prepared)
{
    const std::string base = bench::BaseDir(baseArgument);
    const std::string socketPath = base + "quelt.sock";
    const std::string entryPrefix = base + "msgs/roundtrip.";
    char line[4112];
    unsigned long sequence = 0;
    while (std::fgets(line, sizeof line, stdin) != nullptr) {
        std::string entry = line;
        if (!entry.empty() && entry.back() == '\n')
            entry.pop_back();
        if (!prepared)
            entry = entryPrefix + std::to_string(++sequence);
        const std::string answer = bench::AskDaemon(socketPath, entry) + "\n";
        bench::WriteAll(1, answer.data(), answer.size(), "standard output");
    }
}

} // namespace

int main(int argc, char** argv)
{
    const bool filter = argc >= 3 && std::string(argv[1]) == "--smtpserver";
    const bool prepared = argc == 3 && std::string(argv[1]) == "--entries";
    if (argc != 2 && !filter && !prepared) {
        std::fputs("usage: bench-roundtrip BASEDIR < lines\n"
                   "       bench-roundtrip --entries BASEDIR < entry directories\n"
                   "       bench-roundtrip --smtpserver PROGRAM [ARGUMENT...] < lines\n",
                   stderr);
        return 2;
    }
    try {
        if (filter)
            DriveFilter(argv + 2);
        else
            AskDaemonPerLine(argv[argc - 1], prepared);
        return 0;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "bench-roundtrip: %s\n", failure.what());
        return 1;
    }
}
