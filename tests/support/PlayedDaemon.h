// tests/support/PlayedDaemon.h: the checking daemon played by a test. Listens
// on a socket path for one conversation: reads the request line, answers what
// the script makes of it, then closes. Every wait is bounded, and the
// destructor ends a daemon that still waits (and removes the socket), so a
// broken client fails the test, not hangs it.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

// A Unix stream socket on which op (::connect or ::bind) succeeded for path
// (cut to what fits), or -1.
template <class Op> int UnixSocket(const std::string& path, Op op)
{
    sockaddr_un address{AF_UNIX, {}};
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (op(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
        return fd;
    ::close(fd);
    return -1;
}

// A stream socket connected to path, or -1 when nobody listens there.
inline int ConnectTo(const std::string& path)
{
    return UnixSocket(path, ::connect);
}

class PlayedDaemon
{
public:
    // The answer to a request line ("CHECK <entry>\n"); "" answers nothing.
    using Script = std::function<std::string(const std::string& request)>;
    static constexpr int BoundMs = 20000;

    // end: what ends a request (clamd's zFILDES: its NUL, then the
    // descriptor's message of one NUL byte).
    PlayedDaemon(const std::string& socketPath, Script script, std::string end = "\n")
        : path(socketPath), script(std::move(script)), end(std::move(end))
    {
        if (::pipe2(stopPipe, O_CLOEXEC) != 0)
            throw std::runtime_error("pipe failed");
        listener = ListenOn(socketPath);
        worker = std::thread([this] { Play(); });
    }
    PlayedDaemon(const std::string& socketPath, const std::string& answer)
        : PlayedDaemon(socketPath, [answer](const std::string&) { return answer; })
    {
    }
    ~PlayedDaemon()
    {
        (void)::write(stopPipe[1], "x", 1); // a full pipe has woken the worker already
        Finish();
        for (int fd : {listener, stopPipe[0], stopPipe[1]})
            ::close(fd);
        ::unlink(path.c_str());
    }
    PlayedDaemon(const PlayedDaemon&) = delete;
    PlayedDaemon& operator=(const PlayedDaemon&) = delete;

    // Waits for the conversation to end; returns the request bytes received.
    const std::string& Finish()
    {
        if (worker.joinable())
            worker.join();
        return request;
    }

    // A socket bound and listening at path (or bound and closed: stale).
    static int ListenOn(const std::string& path)
    {
        const int fd = UnixSocket(path, ::bind);
        if (fd < 0 || ::listen(fd, 4) != 0) {
            ::close(fd); // harmless on -1, when the bind failed
            throw std::runtime_error("cannot listen on " + path);
        }
        return fd;
    }

private:
    // False when the bound ran out or the destructor asked to stop.
    bool Readable(int fd)
    {
        pollfd ready[2] = {{fd, POLLIN, 0}, {stopPipe[0], POLLIN, 0}};
        return ::poll(ready, 2, BoundMs) > 0 && ready[1].revents == 0;
    }

    void Play()
    {
        int client = Readable(listener) ? ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC) : -1;
        char block[4096];
        ssize_t count = 0;
        while (client >= 0 && request.find(end) == std::string::npos && Readable(client) &&
               (count = ::read(client, block, sizeof block)) > 0)
            request.append(block, static_cast<std::size_t>(count));
        if (client < 0)
            return;
        // A request cut short (the client gave up) gets no answer. The client
        // may give up before reading it all: no SIGPIPE, no check.
        const std::string answer = request.find(end) != std::string::npos ? script(request) : "";
        (void)::send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
        ::close(client);
    }

    const std::string path;
    const Script script;
    const std::string end;
    int stopPipe[2] = {-1, -1};
    int listener = -1;
    std::string request;
    std::thread worker;
};
