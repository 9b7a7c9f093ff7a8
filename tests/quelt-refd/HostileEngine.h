// tests/quelt-refd/HostileEngine.h: an engine played by the test, for the
// answers no real engine gives. It takes connections one after another on a
// Unix socket or a loopback TCP port, reads each request up to its end and
// hands the connection to the test's answer, which writes a reply or floods.
// Every wait is bounded, and the destructor stops a flood and the server.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

#include "support/PlayedDaemon.h"

class HostileEngine
{
public:
    using Answer = std::function<void(HostileEngine& engine, int client)>;
    static constexpr int BoundMs = 20000;

    // path: a Unix socket there; empty: 127.0.0.1 on a free port. end: the
    // last bytes of a request.
    HostileEngine(const std::string& path, std::string end, Answer answer)
        : path(path), end(std::move(end)), answer(std::move(answer))
    {
        if (::pipe2(stopPipe, O_CLOEXEC) != 0)
            throw std::runtime_error("pipe failed");
        listener = path.empty() ? ListenOnLoopback() : PlayedDaemon::ListenOn(path);
        worker = std::thread([this] { Serve(); });
    }
    ~HostileEngine()
    {
        (void)::write(stopPipe[1], "x", 1);
        worker.join();
        for (int fd : {listener, stopPipe[0], stopPipe[1]})
            ::close(fd);
        if (!path.empty())
            ::unlink(path.c_str());
    }
    HostileEngine(const HostileEngine&) = delete;
    HostileEngine& operator=(const HostileEngine&) = delete;

    // The address for the daemon's engine option.
    std::string Address() const { return address; }

    // Sends bytes; false when the client left or the engine is stopping.
    bool Send(int client, const std::string& bytes)
    {
        for (std::size_t done = 0; done < bytes.size();) {
            if (!Ready(client, POLLOUT))
                return false;
            const ssize_t count = ::send(client, bytes.data() + done, bytes.size() - done,
                                         MSG_NOSIGNAL | MSG_DONTWAIT);
            if (count < 0 && errno == EAGAIN)
                continue;
            if (count <= 0)
                return false;
            done += static_cast<std::size_t>(count);
        }
        return true;
    }

    // Sends head, then repeat again and again until the client leaves, the
    // engine stops or the bound passes.
    void Flood(int client, const std::string& head, const std::string& repeat)
    {
        const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(BoundMs);
        if (!Send(client, head))
            return;
        while (std::chrono::steady_clock::now() < until && Send(client, repeat)) {
        }
    }

private:
    int ListenOnLoopback()
    {
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in at{};
        at.sin_family = AF_INET;
        at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof at;
        if (::bind(fd, reinterpret_cast<sockaddr*>(&at), sizeof at) != 0 || ::listen(fd, 4) != 0 ||
            ::getsockname(fd, reinterpret_cast<sockaddr*>(&at), &length) != 0)
            throw std::runtime_error("cannot listen on loopback");
        address = "127.0.0.1:" + std::to_string(ntohs(at.sin_port));
        return fd;
    }

    // False when the bound ran out or the destructor asked to stop.
    bool Ready(int fd, short events)
    {
        pollfd ready[2] = {{fd, events, 0}, {stopPipe[0], POLLIN, 0}};
        return ::poll(ready, 2, BoundMs) > 0 && ready[1].revents == 0;
    }

    void Serve()
    {
        while (Ready(listener, POLLIN)) {
            const int client = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            std::string request;
            char block[4096];
            ssize_t count = 0;
            while (client >= 0 && request.find(end) == std::string::npos && Ready(client, POLLIN) &&
                   (count = ::read(client, block, sizeof block)) > 0)
                request.append(block, static_cast<std::size_t>(count));
            if (client >= 0 && request.find(end) != std::string::npos)
                answer(*this, client);
            ::close(client);
        }
    }

    const std::string path;
    const std::string end;
    const Answer answer;
    std::string address = path;
    int stopPipe[2] = {-1, -1};
    int listener = -1;
    std::thread worker;
};
