// quarantine/Fd.h: the owner of one descriptor the tool opened; closes it
// when it goes. The tool only reads and removes what it opens, so a failed
// close has nothing to report.
#pragma once

#include <unistd.h>

class Fd
{
public:
    explicit Fd(int fd = -1) : fd(fd) {}
    ~Fd()
    {
        if (fd >= 0)
            (void)::close(fd); // read-only descriptors: nothing is lost
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    Fd(Fd&& other) noexcept : fd(other.fd) { other.fd = -1; }
    Fd& operator=(Fd&& other) noexcept
    {
        if (this != &other) {
            if (fd >= 0)
                (void)::close(fd); // as in the destructor
            fd = other.fd;
            other.fd = -1;
        }
        return *this;
    }

    int Get() const { return fd; }
    bool IsValid() const { return fd >= 0; }

private:
    int fd;
};
