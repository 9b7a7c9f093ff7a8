// adapter/LineBuffer.h: the bytes read from one descriptor, handed out line
// by line. A line longer than the bound comes out cut to the bound and
// marked; the rest of it, up to its line feed, is dropped.
// Throws std::domain_error when a read fails (other than EINTR).
#pragma once

#include <cstddef>
#include <string>

class LineBuffer
{
public:
    enum class Take { Line, Overlong, None, End };

    explicit LineBuffer(std::size_t maxLine) : maxLine(maxLine) {}

    // Reads what the descriptor has now, once (the caller has polled it).
    void Fill(int fd);
    // The next whole line, without its line feed: Line, or Overlong with the
    // first maxLine bytes. A last line without a line feed comes out once the
    // input has ended. None: nothing whole yet; End: the input ended.
    Take Next(std::string& line);
    // The descriptor has reported its end (lines may still be pending).
    bool InputEnded() const { return ended; }

private:
    const std::size_t maxLine;
    std::string pending;
    bool skipping = false; // dropping the rest of an overlong line
    bool ended = false;
};
