// tests/support/StdoutCapture.h: points descriptor 1 at a pipe while the
// object lives, so that bytes written to standard output can be read back
// exactly. Meant for short outputs (less than a pipe's capacity).
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

class StdoutCapture
{
public:
    StdoutCapture()
    {
        if (::pipe2(pipeFds, O_CLOEXEC) != 0)
            throw std::runtime_error("pipe failed");
        savedStdout = ::dup(1);
        if (savedStdout < 0 || ::dup2(pipeFds[1], 1) < 0)
            throw std::runtime_error("dup failed");
    }
    ~StdoutCapture() { Restore(); }
    StdoutCapture(const StdoutCapture&) = delete;
    StdoutCapture& operator=(const StdoutCapture&) = delete;

    // Puts standard output back and returns every byte written meanwhile.
    std::string Take()
    {
        Restore();
        std::string bytes;
        char block[4096];
        ssize_t n;
        while ((n = ::read(pipeFds[0], block, sizeof block)) > 0)
            bytes.append(block, static_cast<std::size_t>(n));
        return bytes;
    }

private:
    void Restore()
    {
        if (savedStdout >= 0) {
            (void)::dup2(savedStdout, 1); // test support: best effort
            (void)::close(savedStdout);
            savedStdout = -1;
        }
        if (pipeFds[1] >= 0) {
            (void)::close(pipeFds[1]);
            pipeFds[1] = -1;
        }
    }

    int pipeFds[2] = {-1, -1};
    int savedStdout = -1;
};
