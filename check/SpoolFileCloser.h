// check/SpoolFileCloser.h: the owner of the job's spool stream. Close is the
// checked close after the reply; the destructor closes only on the way out of
// a failing job, where a second failure must not end the process.
#pragma once

#include <cstdio>

class SpoolFileCloser
{
public:
    explicit SpoolFileCloser(FILE* stream) : stream(stream) {}
    ~SpoolFileCloser();
    SpoolFileCloser(const SpoolFileCloser&) = delete;
    SpoolFileCloser& operator=(const SpoolFileCloser&) = delete;

    FILE* Stream() const { return stream; }
    // Closes the stream; throws std::domain_error "fclose error" on failure.
    void Close();

private:
    FILE* stream;
};
