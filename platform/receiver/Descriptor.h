// platform/receiver/Descriptor.h: the owner of one file descriptor. Holds -1
// when the open that produced it failed; closes what it holds when it goes.
#pragma once

class Descriptor
{
public:
    explicit Descriptor(int fd) : fd(fd) {}
    virtual ~Descriptor();
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    // Closes the descriptor once; does nothing when it holds -1. Returns 0, or
    // -1 with errno set when close failed (the descriptor is gone either way).
    int Close();
    int Get() const { return fd; }
    // Hands the descriptor over to the caller; holds -1 afterwards.
    int Release()
    {
        const int held = fd;
        fd = -1;
        return held;
    }
    // Closes what it holds (as the destructor would) and takes newFd.
    void Reset(int newFd)
    {
        (void)Close();
        fd = newFd;
    }
    bool IsValid() const { return fd >= 0; }

private:
    int fd;
};
