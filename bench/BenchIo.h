// bench/BenchIo.h: the plain system-call pieces the baseline programs share:
// a descriptor owner, a write-all loop and one daemon round trip. No logging;
// every failure throws std::runtime_error with the whole message, and each
// program's main reports it once.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <stdexcept>
#include <string>

namespace bench
{

// Throws with what failed and the system's text for error (taken by the
// caller right after the failing call).
[[noreturn]] inline void FailSystem(const std::string& what, int error)
{
    throw std::runtime_error(what + ":" + std::strerror(error));
}

class Fd
{
public:
    explicit Fd(int fd) : fd(fd) {}
    ~Fd()
    {
        if (fd >= 0)
            (void)::close(fd); // exception path only; Close() reports the normal one
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;

    int Get() const { return fd; }
    bool IsValid() const { return fd >= 0; }
    // Closes once and throws when close reports an error; never retried.
    void Close(const std::string& what)
    {
        const int result = ::close(fd);
        fd = -1;
        if (result != 0)
            FailSystem("close " + what, errno);
    }

private:
    int fd;
};

// The base directory given on the command line, ending in "/".
inline std::string BaseDir(const char* argument)
{
    std::string base = argument;
    if (base.empty() || base.back() != '/')
        base += '/';
    return base;
}

inline void WriteAll(int fd, const char* data, std::size_t length, const std::string& what)
{
    while (length > 0) {
        const ssize_t count = ::write(fd, data, length);
        if (count < 0) {
            const int error = errno;
            if (error == EINTR)
                continue;
            FailSystem("write " + what, error);
        }
        data += count;
        length -= static_cast<std::size_t>(count);
    }
}

// Connects to the daemon's socket, sends "CHECK <entryDir>\n" and returns the
// first answer line without its "\n". Blocks without a time limit: the bench
// script bounds the whole run instead.
inline std::string AskDaemon(const std::string& socketPath, const std::string& entryDir)
{
    sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    if (socketPath.size() >= sizeof address.sun_path)
        throw std::runtime_error("socket path too long: " + socketPath);
    std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);

    Fd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socket.IsValid())
        FailSystem("socket", errno);
    while (::connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
           0) {
        const int error = errno;
        if (error != EINTR)
            FailSystem("connect " + socketPath, error);
    }
    const std::string request = "CHECK " + entryDir + "\n";
    WriteAll(socket.Get(), request.data(), request.size(), socketPath);

    char answer[512];
    std::size_t used = 0;
    while (used < sizeof answer) {
        const ssize_t count = ::read(socket.Get(), answer + used, sizeof answer - used);
        if (count < 0) {
            const int error = errno;
            if (error == EINTR)
                continue;
            FailSystem("read " + socketPath, error);
        }
        if (count == 0)
            throw std::runtime_error("daemon closed " + socketPath + " before a whole answer");
        const void* end = std::memchr(answer + used, '\n', static_cast<std::size_t>(count));
        used += static_cast<std::size_t>(count);
        if (end != nullptr) {
            // Read-only use from here on; the answer is complete.
            socket.Close(socketPath);
            return std::string(static_cast<const char*>(answer), static_cast<const char*>(end));
        }
    }
    throw std::runtime_error("answer from " + socketPath + " longer than 512 bytes");
}

} // namespace bench
