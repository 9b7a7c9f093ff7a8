// tests/receiver/PlayedDaemon.h: the checking daemon played by a test. Listens
// on a socket path, takes one connection, reads the request line, writes a
// scripted answer and then closes, or waits until the client gives up.
// Every wait is bounded so that a broken client fails the test, not hangs it.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>

class PlayedDaemon
{
public:
    enum class After { Close, WaitForClientClose };
    static constexpr int BoundMs = 20000;

    PlayedDaemon(const std::string& socketPath, std::string answer, After after)
        : answer(std::move(answer)), after(after)
    {
        listener = ListenOn(socketPath);
        worker = std::thread([this] { Play(); });
    }
    ~PlayedDaemon()
    {
        Finish();
        ::close(listener);
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
        int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address;
        std::memset(&address, 0, sizeof address);
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(fd, 4) != 0) {
            if (fd >= 0)
                ::close(fd);
            throw std::runtime_error("cannot listen on " + path);
        }
        return fd;
    }

private:
    static bool Readable(int fd)
    {
        pollfd ready = {fd, POLLIN, 0};
        return ::poll(&ready, 1, BoundMs) == 1;
    }

    void Play()
    {
        if (!Readable(listener))
            return;
        int client = ::accept(listener, nullptr, nullptr);
        if (client < 0)
            return;
        char block[4096];
        while (request.find('\n') == std::string::npos && Readable(client)) {
            ssize_t count = ::read(client, block, sizeof block);
            if (count <= 0)
                break;
            request.append(block, static_cast<std::size_t>(count));
        }
        // The client may give up before reading it all: no SIGPIPE, no check.
        (void)::send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
        if (after == After::WaitForClientClose)
            while (Readable(client) && ::read(client, block, sizeof block) > 0)
                ;
        ::close(client);
    }

    const std::string answer;
    const After after;
    int listener = -1;
    std::string request;
    std::thread worker;
};
