// daemon/CheckReport.h: the findings of --check, one line each on
// standard output: "ok <what>", "PROBLEM <what>: <cause> (fix: <fix>)", or
// "skipped <what>: <why>" for a check that does not apply here. The exit
// status is 1 when any PROBLEM was printed.
#pragma once

#include <cstdio>
#include <string>

class CheckReport
{
public:
    void Ok(const std::string& what) { Line("ok " + what); }
    void Problem(const std::string& what, const std::string& cause, const std::string& fix)
    {
        Line("PROBLEM " + what + ": " + cause + " (fix: " + fix + ")");
        problems++;
    }
    void Skipped(const std::string& what, const std::string& why) { Line("skipped " + what + ": " + why); }
    // A finding line as another program printed it; a PROBLEM counts.
    void Relay(const std::string& line)
    {
        Line(line);
        problems += line.compare(0, 8, "PROBLEM ") == 0 ? 1 : 0;
    }
    int Problems() const { return problems; }
    int Status() const { return problems == 0 ? 0 : 1; }

private:
    // Flushed at once: a check that hangs shows how far the run came.
    static void Line(const std::string& text)
    {
        std::printf("%s\n", text.c_str());
        std::fflush(stdout);
    }

    int problems = 0;
};
