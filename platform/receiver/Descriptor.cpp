// platform/receiver/Descriptor.cpp: closing the owned descriptor exactly once.
#include "platform/receiver/Descriptor.h"

#include <unistd.h>

Descriptor::~Descriptor()
{
    // Only the exception path and read-only descriptors get here unclosed;
    // a close that matters is made explicitly by the owner and checked.
    (void)Close();
}

int Descriptor::Close()
{
    if (fd < 0)
        return 0;
    // Never retried, not even on EINTR: on Linux the descriptor is released
    // before close returns, and a second close could hit a reused number.
    const int result = ::close(fd);
    fd = -1;
    return result;
}
