// platform/receiver/DaemonClient.cpp: the socket conversation behind
// Receiver::ProcessMsg. One connection per message; every wait is bounded by
// one deadline taken from the monotonic clock when the conversation starts.
#include "platform/receiver/DaemonClient.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "platform/log/LogClass.h"
#include "platform/receiver/Descriptor.h"

namespace
{

// Logs the cause of a failed conversation; always false, for the caller's
// return.
bool LogCause(const std::string& text)
{
    if (Log.isErrorEnabled())
        Log.forcedLog(LogClass::Error, text);
    return false;
}

// Milliseconds on the monotonic clock, or -1 when it cannot be read.
int64_t MonotonicMs()
{
    timespec now;
    if (::clock_gettime(CLOCK_MONOTONIC, &now) != 0)
        return -1;
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// The daemon, and how long it may take, for one conversation.
struct Peer {
    const std::string& socketPath;
    int timeoutSeconds;
    int64_t deadlineMs;

    // Milliseconds left until the deadline, at most what one poll can wait
    // (a longer limit is served by further polls); 0 once it has passed or
    // the clock fails.
    int RemainingMs() const
    {
        int64_t now = MonotonicMs();
        if (now < 0 || now >= deadlineMs)
            return 0;
        return static_cast<int>(std::min<int64_t>(deadlineMs - now, INT32_MAX));
    }

    bool LogTimeout() const
    {
        return LogCause("no answer from daemon at " + socketPath + " within " +
                        std::to_string(timeoutSeconds) + " s");
    }

    bool LogSystem(const std::string& what, int error) const
    {
        return LogCause(what + " daemon at " + socketPath + ":" + std::strerror(error));
    }
};

// Connects fd, a blocking socket, to the daemon. A Unix stream connect
// completes at once unless the daemon's backlog is full; then only a blocking
// connect can wait for room, and SO_SNDTIMEO bounds that wait by the time
// left. The socket is non-blocking afterwards.
bool Connect(const Peer& peer, int fd)
{
    sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    if (peer.socketPath.size() >= sizeof address.sun_path)
        return LogCause("daemon socket path too long: " + peer.socketPath);
    std::memcpy(address.sun_path, peer.socketPath.c_str(), peer.socketPath.size() + 1);

    for (;;) {
        int left = peer.RemainingMs();
        if (left <= 0) // a zero SO_SNDTIMEO would mean no bound at all
            return peer.LogTimeout();
        timeval bound = {left / 1000, (left % 1000) * 1000};
        if (::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof bound) != 0) {
            int error = errno;
            return peer.LogSystem("can not bound the connect to", error);
        }
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
            break;
        int error = errno;
        if (error == EINTR)
            continue; // a Unix connect that was interrupted has not begun
        if (error == EAGAIN)
            return peer.LogTimeout();
        return peer.LogSystem("can not connect to", error);
    }
    int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) {
        int error = errno;
        return peer.LogSystem("can not make non-blocking the connection to", error);
    }
    return true;
}

// Waits until fd is ready for events, or has failed or hung up (the next
// send or recv tells which); false, logged, when the deadline passes first.
bool WaitFor(const Peer& peer, int fd, short events)
{
    for (;;) {
        int left = peer.RemainingMs();
        if (left <= 0)
            return peer.LogTimeout();
        pollfd ready = {fd, events, 0};
        int count = ::poll(&ready, 1, left);
        if (count > 0)
            return true;
        if (count < 0) {
            int error = errno;
            if (error != EINTR)
                return peer.LogSystem("can not wait for", error);
        }
    }
}

// Writes all of request. MSG_NOSIGNAL: a daemon that has gone away must
// answer EPIPE here, not end the filter with SIGPIPE.
bool Send(const Peer& peer, int fd, const std::string& request)
{
    std::size_t done = 0;
    while (done < request.size()) {
        ssize_t count = ::send(fd, request.data() + done, request.size() - done, MSG_NOSIGNAL);
        if (count >= 0) {
            done += static_cast<std::size_t>(count);
            continue;
        }
        int error = errno;
        if (error == EINTR)
            continue;
        if (error != EAGAIN && error != EWOULDBLOCK)
            return peer.LogSystem("can not send the request to", error);
        if (!WaitFor(peer, fd, POLLOUT))
            return false;
    }
    return true;
}

// Reads the first line of the answer into line, without its "\n" and a "\r"
// before it. Bytes after the line end are not looked at.
bool ReadLine(const Peer& peer, int fd, std::string& line)
{
    char buffer[MaxAnswerLine];
    std::size_t used = 0;
    while (used < sizeof buffer) {
        ssize_t count = ::recv(fd, buffer + used, sizeof buffer - used, 0);
        if (count < 0) {
            int error = errno;
            if (error == EINTR)
                continue;
            if (error != EAGAIN && error != EWOULDBLOCK)
                return peer.LogSystem("can not read the answer of", error);
            if (!WaitFor(peer, fd, POLLIN))
                return false;
            continue;
        }
        if (count == 0)
            return LogCause("daemon at " + peer.socketPath +
                            " closed the connection before a full answer line");
        const char* end = static_cast<const char*>(
            std::memchr(buffer + used, '\n', static_cast<std::size_t>(count)));
        used += static_cast<std::size_t>(count);
        if (end != nullptr) {
            std::size_t length = static_cast<std::size_t>(end - buffer);
            if (length > 0 && buffer[length - 1] == '\r')
                --length;
            line.assign(buffer, length);
            return true;
        }
    }
    return LogCause("answer line from daemon at " + peer.socketPath + " longer than " +
                    std::to_string(MaxAnswerLine) + " bytes");
}

// Splits one answer line into flags and note: decimal digits only, in the
// range of 32 bits, then the end of the line or one blank and the note.
bool ParseAnswerLine(const std::string& line, VerdictFlags& flags, std::string& note)
{
    std::size_t digits = 0;
    uint64_t value = 0;
    while (digits < line.size() && line[digits] >= '0' && line[digits] <= '9') {
        value = value * 10 + static_cast<uint64_t>(line[digits] - '0');
        if (value > UINT32_MAX)
            return false;
        ++digits;
    }
    if (digits == 0)
        return false;
    if (digits == line.size())
        note.clear();
    else if (line[digits] == ' ')
        note = line.substr(digits + 1);
    else
        return false;
    flags = static_cast<VerdictFlags>(value);
    return true;
}

} // namespace

VerdictFlags AskDaemon(const std::string& socketPath, const std::string& entryDir,
                       int timeoutSeconds, std::string& note)
{
    note.clear();
    int64_t startMs = MonotonicMs();
    if (startMs < 0) {
        int error = errno;
        LogCause(std::string("can not read the monotonic clock:") + std::strerror(error));
        return VerdictDaemonError;
    }
    const Peer peer{socketPath, timeoutSeconds, startMs + int64_t{timeoutSeconds} * 1000};
    if (entryDir.find('\n') != std::string::npos) {
        LogCause("entry directory with a line end can not be sent to daemon at " + socketPath);
        return VerdictDaemonError;
    }

    Descriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.IsValid()) {
        int error = errno;
        peer.LogSystem("can not create a socket for", error);
        return VerdictDaemonError;
    }
    std::string line;
    if (!Connect(peer, fd.Get()) || !Send(peer, fd.Get(), conversation::RequestVerb + entryDir + "\n") ||
        !ReadLine(peer, fd.Get(), line))
        return VerdictDaemonError;

    VerdictFlags flags = 0;
    std::string text;
    if (!ParseAnswerLine(line, flags, text)) {
        LogCause("bad verdict flags from daemon at " + socketPath + ": '" +
                 line.substr(0, std::min<std::size_t>(line.find(' '), 40)) + "'");
        return VerdictDaemonError;
    }
    // The one line that tells an administrator why a message went as it did.
    if (Log.isInfoEnabled())
        Log.forcedLog(LogClass::Info, "daemon verdict " + std::to_string(flags) + " for " +
                                          entryDir + " note '" + text + "'");
    note = std::move(text);
    return flags;
}

void ReportFsyncFailure(const std::string& socketPath, const std::string& entryDir,
                        int timeoutSeconds)
{
    const int64_t startMs = MonotonicMs();
    if (startMs < 0 || entryDir.find('\n') != std::string::npos)
        return (void)LogCause("can not report the failed flush to daemon at " + socketPath);
    const Peer peer{socketPath, timeoutSeconds, startMs + int64_t{timeoutSeconds} * 1000};
    Descriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.IsValid())
        return (void)peer.LogSystem("can not create a socket for", errno);
    if (Connect(peer, fd.Get()))
        (void)Send(peer, fd.Get(), conversation::FsyncFailedVerb + entryDir + "\n"); // logged
}
