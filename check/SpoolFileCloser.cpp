// check/SpoolFileCloser.cpp
#include "check/SpoolFileCloser.h"

#include <stdexcept>

SpoolFileCloser::~SpoolFileCloser()
{
    // Only reached with the stream still open when the job is already
    // failing: that failure is the one reported, and the stream holds no
    // output of ours (every write went through descriptors).
    if (stream != nullptr)
        (void)std::fclose(stream);
}

void SpoolFileCloser::Close()
{
    FILE* closing = stream;
    stream = nullptr; // fclose releases the stream even when it fails
    if (std::fclose(closing) != 0)
        throw std::domain_error("fclose error");
}
