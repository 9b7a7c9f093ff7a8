// platform/receiver/VxFile.h: copying between descriptors without holding a
// message in memory.
#pragma once

#include <cstdint>
#include <sys/types.h>

class TimeoutIf;

// Sees each block on its way from source to target and may change it.
class CopyFilter
{
public:
    virtual ~CopyFilter() = default;
    virtual void Filter(char*& block, ssize_t& length) = 0;
};

class VxFile
{
public:
    // Copies exactly count bytes from src's current offset to dst's current
    // offset, front to back, advancing both. Correct within one file when the
    // read offset is ahead of the write offset. True only when every byte was
    // written; a source that ends early is false. filter and timeout may be
    // null (no filtering, no time limit).
    static bool CopyDescr(int src, int dst, int64_t count, CopyFilter* filter, TimeoutIf* timeout);
};
