// adapter/FilterChild.h: one run of the filter as a child process, its
// standard input, output and error on pipes of their own and no other
// descriptor; it dies with the adapter. Owns the child: the destructor kills
// and reaps one that is still there. Lines on its standard error go to the
// sink as they come.
// A failed pipe or spawn is reported as text (the caller answers for the
// job); a failed read or poll throws std::domain_error.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "adapter/LineBuffer.h"

using Deadline = std::chrono::steady_clock::time_point;

// The NULL-ended pointer array execve wants, pointing into strings.
std::vector<char*> Pointers(const std::vector<std::string>& strings);

// Starts argv with the environment env and stdio as its descriptors 0, 1
// and 2, and nothing else of ours; it is killed when the adapter ends. Its
// pid, or -1 with failure set.
pid_t StartChild(const int (&stdio)[3], const std::vector<std::string>& argv,
                 const std::vector<std::string>& env, std::string& failure);

class FilterChild
{
public:
    using Sink = std::function<void(const std::string& line)>;
    enum class Event { Line, Overlong, End, Deadline, Watched };

    // Starts argv with the environment env ("NAME=value" each); when that
    // fails, Started() is false and Failure() says why.
    FilterChild(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                Sink stderrSink);
    ~FilterChild();
    FilterChild(const FilterChild&) = delete;
    FilterChild& operator=(const FilterChild&) = delete;

    bool Started() const { return pid > 0; }
    const std::string& Failure() const { return failure; }
    // Writes bytes to the child's input; false when it no longer reads.
    bool Send(const std::string& bytes);
    // Waits for the next line on the child's output (Line or Overlong, in
    // line), the end of that output, the deadline, or, when watchFd is not
    // -1, input on watchFd (Watched).
    Event Next(std::string& line, Deadline deadline, int watchFd = -1);
    // Closes the child's input, lets it end by the deadline (its output is
    // dropped, its standard error still goes to the sink), kills it when it
    // has not, and reaps it; whileDead, when given, runs between its end and
    // the reap (its process id is not free yet). Returns how it ended ("exit
    // status 0", "killed by signal 9"). Once only.
    std::string Finish(Deadline deadline, bool killFirst = false,
                       const std::function<void(pid_t)>& whileDead = {});

private:
    // Polls output and error (and watchFd) until one has something or the
    // deadline passes; reads what they have. False at the deadline.
    bool Poll(Deadline deadline, int watchFd, bool& watched);
    void PassStderr();

    pid_t pid = -1;
    int input = -1, output = -1, errors = -1; // our ends
    LineBuffer outputLines{16384}, errorLines{4096};
    Sink sink;
    std::string failure;
};
