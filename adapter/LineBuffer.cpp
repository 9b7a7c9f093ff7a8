// adapter/LineBuffer.cpp: line framing over a descriptor, with a bound.
#include "adapter/LineBuffer.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

void LineBuffer::Fill(int fd)
{
    char block[4096];
    ssize_t count;
    do
        count = ::read(fd, block, sizeof block);
    while (count < 0 && errno == EINTR);
    if (count < 0)
        throw std::domain_error(std::string("read error:") + std::strerror(errno));
    if (count == 0)
        ended = true;
    pending.append(block, static_cast<std::size_t>(count));
}

LineBuffer::Take LineBuffer::Next(std::string& line)
{
    for (;;) {
        const std::size_t end = pending.find('\n');
        if (skipping) {
            pending.erase(0, end == std::string::npos ? pending.size() : end + 1);
            if (end == std::string::npos)
                return ended ? Take::End : Take::None;
            skipping = false;
            continue;
        }
        if (end != std::string::npos && end <= maxLine) {
            line.assign(pending, 0, end);
            pending.erase(0, end + 1);
            return Take::Line;
        }
        if (pending.size() > maxLine) {
            line.assign(pending, 0, maxLine);
            pending.erase(0, maxLine);
            skipping = true;
            return Take::Overlong;
        }
        if (!ended)
            return Take::None;
        if (pending.empty())
            return Take::End;
        line.swap(pending); // the last line, without its line feed
        pending.clear();
        return Take::Line;
    }
}
