// platform/ipc/Connection.cpp: the one write-all loop of the program.
#include "platform/ipc/Connection.h"

#include <unistd.h>

#include <cerrno>

int32_t Connection::Write(int fd, const void* data, std::size_t length, ThreadPool*, TimeoutIf*)
{
    const char* bytes = static_cast<const char*>(data);
    std::size_t written = 0;
    while (written < length) {
        ssize_t n = ::write(fd, bytes + written, length - written);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return -1;
        }
        written += static_cast<std::size_t>(n);
    }
    return static_cast<int32_t>(written);
}
