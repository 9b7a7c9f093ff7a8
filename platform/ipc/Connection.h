// platform/ipc/Connection.h: descriptor output of the suite's IPC library, as
// far as this program needs it: write a whole buffer to a descriptor.
#pragma once

#include <cstddef>
#include <cstdint>

class ThreadPool;
class TimeoutIf;

class Connection
{
public:
    // Writes all length bytes of data to fd, retrying short writes and
    // interrupted calls. Returns the count written (length on success) or -1
    // when a write fails. pool and timeout are accepted for the suite's
    // signature; this program always passes null for both.
    static int32_t Write(int fd, const void* data, std::size_t length, ThreadPool* pool,
                         TimeoutIf* timeout);
};
