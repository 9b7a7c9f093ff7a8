// daemon/EngineSocket.cpp: sockets in non-blocking mode, every wait
// a poll bounded by the caller's deadline, so that a silent engine or client
// holds one check, never the daemon.
#include "EngineSocket.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <stdexcept>
#include <sys/sendfile.h>
#include <sys/un.h>

namespace
{

std::string SystemText(int error)
{
    return std::strerror(error);
}

// Waits until socket is ready for events; throws when the deadline passes.
void WaitFor(int socket, short events, Deadline deadline, const char* what)
{
    for (;;) {
        pollfd ready = {socket, events, 0};
        int count = ::poll(&ready, 1, MillisecondsLeft(deadline));
        if (count > 0)
            return;
        if (count == 0)
            throw std::domain_error(std::string(what) + " timed out");
        if (errno != EINTR) {
            int error = errno;
            throw std::domain_error(std::string("poll error:") + SystemText(error));
        }
    }
}

// A peer that keeps taking bytes, however slowly, never makes poll wait
// past the deadline: each transfer looks at it first.
void CheckDeadline(Deadline deadline, const char* what)
{
    if (Clock::now() >= deadline)
        throw std::domain_error(std::string(what) + " timed out");
}

bool PeerClosed(int error)
{
    return error == EPIPE || error == ECONNRESET;
}

// After a failed send call: false when the peer has closed its end, true
// once the call may be tried again (interrupted, or the socket writable
// again); throws std::domain_error ("<call> error:") on any other error.
bool MaySendAgain(int socket, int error, Deadline deadline, const char* call)
{
    if (PeerClosed(error))
        return false;
    if (error == EAGAIN)
        WaitFor(socket, POLLOUT, deadline, "send");
    else if (error != EINTR)
        throw std::domain_error(std::string(call) + " error:" + SystemText(error));
    return true;
}

} // namespace

int MillisecondsLeft(Deadline deadline)
{
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

EngineAddress UnixSocketAddress(const std::string& path)
{
    EngineAddress result;
    result.text = path;
    std::memset(&result.address, 0, sizeof result.address);
    sockaddr_un unixAddress;
    std::memset(&unixAddress, 0, sizeof unixAddress);
    if (path.empty() || path.size() >= sizeof unixAddress.sun_path)
        throw std::invalid_argument("not a usable socket path: '" + path + "'");
    unixAddress.sun_family = AF_UNIX;
    std::memcpy(unixAddress.sun_path, path.c_str(), path.size() + 1);
    std::memcpy(&result.address, &unixAddress, sizeof unixAddress);
    result.length = sizeof unixAddress;
    result.isUnix = true;
    return result;
}

EngineAddress ResolveEngineAddress(const std::string& text)
{
    if (!text.empty() && text[0] == '/')
        return UnixSocketAddress(text);
    EngineAddress result;
    result.text = text;
    std::memset(&result.address, 0, sizeof result.address);
    std::size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == text.size())
        throw std::invalid_argument("not a socket path or HOST:PORT: " + text);
    std::string host = text.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    int rc = ::getaddrinfo(host.c_str(), text.c_str() + colon + 1, &hints, &found);
    if (rc != 0)
        throw std::invalid_argument("can not resolve " + text + ": " + ::gai_strerror(rc));
    std::memcpy(&result.address, found->ai_addr, found->ai_addrlen);
    result.length = found->ai_addrlen;
    ::freeaddrinfo(found);
    return result;
}

Fd ConnectWithDeadline(const EngineAddress& address, Deadline deadline)
{
    Fd socket(::socket(address.address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!socket.IsValid()) {
        int error = errno;
        throw std::domain_error("socket error:" + SystemText(error));
    }
    if (::connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address.address),
                  address.length) == 0)
        return socket;
    int error = errno;
    if (error != EINPROGRESS && error != EAGAIN)
        throw std::domain_error("connect to " + address.text + " error:" + SystemText(error));
    WaitFor(socket.Get(), POLLOUT, deadline, ("connect to " + address.text).c_str());
    socklen_t length = sizeof error;
    if (::getsockopt(socket.Get(), SOL_SOCKET, SO_ERROR, &error, &length) != 0)
        error = errno;
    if (error != 0)
        throw std::domain_error("connect to " + address.text + " error:" + SystemText(error));
    return socket;
}

bool SendAll(int socket, const char* data, std::size_t length, Deadline deadline)
{
    while (length > 0) {
        CheckDeadline(deadline, "send");
        ssize_t count = ::send(socket, data, length, MSG_NOSIGNAL);
        if (count >= 0) {
            data += count;
            length -= static_cast<std::size_t>(count);
            continue;
        }
        if (!MaySendAgain(socket, errno, deadline, "send"))
            return false;
    }
    return true;
}

std::size_t ReadMessageAt(int msg, char* buffer, std::size_t length, off_t offset)
{
    for (;;) {
        const ssize_t count = ::pread(msg, buffer, length, offset);
        if (count >= 0)
            return static_cast<std::size_t>(count);
        const int error = errno;
        if (error != EINTR)
            throw std::domain_error("read error:" + SystemText(error));
    }
}

bool SendFileContents(int socket, int file, std::size_t length, Deadline deadline)
{
    off_t offset = 0;
    while (static_cast<std::size_t>(offset) < length) {
        CheckDeadline(deadline, "send");
        ssize_t count =
            ::sendfile(socket, file, &offset, length - static_cast<std::size_t>(offset));
        if (count > 0)
            continue;
        if (count == 0)
            throw std::logic_error("the message shrank while it was sent");
        if (!MaySendAgain(socket, errno, deadline, "sendfile"))
            return false;
    }
    return true;
}

void SendDescriptor(int socket, int descriptor, Deadline deadline)
{
    char byte = 0;
    iovec part = {&byte, 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    std::memset(control, 0, sizeof control);
    msghdr message;
    std::memset(&message, 0, sizeof message);
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(header), &descriptor, sizeof(int));
    for (;;) {
        if (::sendmsg(socket, &message, MSG_NOSIGNAL) == 1)
            return;
        int error = errno;
        if (error == EAGAIN)
            WaitFor(socket, POLLOUT, deadline, "send");
        else if (error != EINTR)
            throw std::domain_error("sendmsg error:" + SystemText(error));
    }
}

std::size_t ReceiveSome(int socket, char* buffer, std::size_t length, Deadline deadline)
{
    for (;;) {
        CheckDeadline(deadline, "receive");
        ssize_t count = ::recv(socket, buffer, length, 0);
        if (count >= 0)
            return static_cast<std::size_t>(count);
        int error = errno;
        if (error == ECONNRESET)
            return 0;
        if (error == EAGAIN)
            WaitFor(socket, POLLIN, deadline, "receive");
        else if (error != EINTR)
            throw std::domain_error("recv error:" + SystemText(error));
    }
}
