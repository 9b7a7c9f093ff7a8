// platform/log/LogCapture.h: test support. While a LogCapture lives, every log
// line of the process is also kept in memory as "LEVEL context - message",
// with the root level lowered to debug; the old level comes back after.
#pragma once

#include <memory>
#include <string>
#include <vector>

class LogCapture
{
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // The lines captured so far, without line ends.
    std::vector<std::string> Lines() const;
    // The captured lines joined, each ended by "\n".
    std::string Text() const;
    void Clear();

private:
    struct Impl;
    std::unique_ptr<Impl> impl;
};
