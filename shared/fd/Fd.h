// shared/fd/Fd.h: the descriptor owner and write-all loop of quelt-refd and
// vorex-quarantine (for blocking descriptors: files, standard error). Both
// stand apart from the filter's libraries, so they share this copy.
#pragma once

#include <cerrno>
#include <cstddef>
#include <unistd.h>

class Fd
{
public:
    explicit Fd(int fd = -1) : fd(fd) {}
    ~Fd()
    {
        if (fd >= 0)
            (void)::close(fd); // read side or already failed: nothing to report
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    // Ownership passes; the source holds nothing after.
    Fd(Fd&& other) noexcept : fd(other.fd) { other.fd = -1; }
    Fd& operator=(Fd&& other) noexcept
    {
        if (this != &other) {
            if (fd >= 0)
                (void)::close(fd); // replaced unused, as in the destructor
            fd = other.fd;
            other.fd = -1;
        }
        return *this;
    }

    int Get() const { return fd; }
    bool IsValid() const { return fd >= 0; }
    // Closes now and reports it; never retried, the descriptor is gone.
    int Close()
    {
        int result = fd >= 0 ? ::close(fd) : 0;
        fd = -1;
        return result;
    }

private:
    int fd;
};

// Writes all length bytes, retrying interrupted and short writes. False with
// errno set when a write fails.
inline bool WriteAll(int fd, const char* data, std::size_t length)
{
    while (length > 0) {
        ssize_t count = ::write(fd, data, length);
        if (count < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        data += count;
        length -= static_cast<std::size_t>(count);
    }
    return true;
}
