// tools/quelt-refd/Server.cpp: listening, the request line and the answer.
// Stop signals stay blocked except inside ppoll, so a stop can never slip in
// between testing the flag and starting to wait.
#include "Server.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "Fd.h"
#include "MessageCheck.h"

namespace
{

const char* const SocketName = "quelt.sock";
const char* const MsgName = "/.msg";
const char* const RequestVerb = "CHECK ";
// A request is "CHECK " and a path; longer lines are not requests.
constexpr std::size_t MaxRequestLine = 8192;

volatile sig_atomic_t stopRequested = 0;

void OnStopSignal(int)
{
    stopRequested = 1;
}

void Say(const std::string& text)
{
    std::fprintf(stderr, "quelt-refd: %s\n", text.c_str());
}

std::string SystemText(int error)
{
    return std::strerror(error);
}

class Server
{
public:
    explicit Server(const DaemonOptions& options)
        : options(options), socketPath(options.baseDir + SocketName)
    {
    }
    int Run();

private:
    bool SetUpSignals();
    bool ClaimSocketPath();
    // Waits until fd is readable (true), for at most timeoutMs (-1: no
    // limit); false on a stop signal, a timeout or a failure.
    bool WaitReadable(int fd, int timeoutMs);
    void Serve(int client);
    bool ReadRequest(int client, std::string& dir);
    std::string Check(const std::string& dir);

    const DaemonOptions& options;
    const std::string socketPath;
    sigset_t waitMask; // the mask outside the daemon's waits: stops unblocked
};

bool Server::SetUpSignals()
{
    struct sigaction stop;
    std::memset(&stop, 0, sizeof stop);
    stop.sa_handler = OnStopSignal; // no SA_RESTART: a stop ends any wait
    struct sigaction ignore;
    std::memset(&ignore, 0, sizeof ignore);
    ignore.sa_handler = SIG_IGN; // a client that left must not kill the daemon
    sigset_t stops;
    if (sigemptyset(&stop.sa_mask) != 0 || sigemptyset(&ignore.sa_mask) != 0 ||
        sigemptyset(&stops) != 0 || sigaddset(&stops, SIGTERM) != 0 ||
        sigaddset(&stops, SIGINT) != 0 || sigaction(SIGTERM, &stop, nullptr) != 0 ||
        sigaction(SIGINT, &stop, nullptr) != 0 || sigaction(SIGPIPE, &ignore, nullptr) != 0 ||
        sigprocmask(SIG_BLOCK, &stops, &waitMask) != 0) {
        int error = errno;
        Say("can not set up signals: " + SystemText(error));
        return false;
    }
    return sigdelset(&waitMask, SIGTERM) == 0 && sigdelset(&waitMask, SIGINT) == 0;
}

// Removes a socket that nobody answers on; refuses a path where another
// daemon answers or that is not a socket.
bool Server::ClaimSocketPath()
{
    struct stat status;
    if (::lstat(socketPath.c_str(), &status) != 0) {
        int error = errno;
        if (error == ENOENT)
            return true;
        Say("can not look at " + socketPath + ": " + SystemText(error));
        return false;
    }
    if (!S_ISSOCK(status.st_mode)) {
        Say(socketPath + " exists and is not a socket; not started");
        return false;
    }
    Fd probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!probe.IsValid()) {
        int error = errno;
        Say("can not create a socket: " + SystemText(error));
        return false;
    }
    sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
    if (::connect(probe.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
        Say("another daemon answers on " + socketPath + "; not started");
        return false;
    }
    int error = errno;
    if (error != ECONNREFUSED) {
        Say("can not probe " + socketPath + ": " + SystemText(error) + "; not started");
        return false;
    }
    if (::unlink(socketPath.c_str()) != 0 && errno != ENOENT) {
        error = errno;
        Say("can not remove stale socket " + socketPath + ": " + SystemText(error));
        return false;
    }
    return true;
}

int Server::Run()
{
    sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    if (socketPath.size() >= sizeof address.sun_path) {
        Say("socket path too long: " + socketPath);
        return 1;
    }
    std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
    if (!SetUpSignals() || !ClaimSocketPath())
        return 1;

    Fd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!listener.IsValid()) {
        int error = errno;
        Say("can not create a socket: " + SystemText(error));
        return 1;
    }
    if (::bind(listener.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        int error = errno;
        Say("can not bind " + socketPath + ": " + SystemText(error));
        return 1;
    }
    if (::listen(listener.Get(), 16) != 0) {
        int error = errno;
        (void)::unlink(socketPath.c_str()); // ours, and useless unlistened
        Say("can not listen on " + socketPath + ": " + SystemText(error));
        return 1;
    }
    Say("listening on " + socketPath);

    int status = 0;
    while (WaitReadable(listener.Get(), -1)) {
        Fd client(::accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (client.IsValid()) {
            Serve(client.Get());
            continue;
        }
        int error = errno;
        if (error != EINTR && error != ECONNABORTED && error != EAGAIN) {
            Say("can not accept on " + socketPath + ": " + SystemText(error));
            status = 1;
            break;
        }
    }
    if (!stopRequested && status == 0)
        status = 1; // the wait failed; WaitReadable has said why
    if (::unlink(socketPath.c_str()) != 0) {
        int error = errno;
        Say("can not remove " + socketPath + ": " + SystemText(error));
        status = 1;
    }
    Say(status == 0 ? "stopped" : "stopped after a failure");
    return status;
}

bool Server::WaitReadable(int fd, int timeoutMs)
{
    timespec limit = {timeoutMs / 1000, (timeoutMs % 1000) * 1000000L};
    pollfd ready = {fd, POLLIN, 0};
    while (!stopRequested) {
        int count = ::ppoll(&ready, fd >= 0 ? 1 : 0, timeoutMs >= 0 ? &limit : nullptr, &waitMask);
        if (count > 0)
            return true;
        if (count == 0)
            return false;
        int error = errno;
        if (error != EINTR) {
            Say("can not wait: " + SystemText(error));
            return false;
        }
    }
    return false;
}

bool Server::ReadRequest(int client, std::string& dir)
{
    std::string line;
    char block[512];
    while (line.find('\n') == std::string::npos) {
        if (line.size() > MaxRequestLine || !WaitReadable(client, -1))
            return false;
        ssize_t count = ::read(client, block, sizeof block);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        line.append(block, static_cast<std::size_t>(count));
    }
    line.erase(line.find('\n'));
    const std::size_t verbLength = std::strlen(RequestVerb);
    if (line.compare(0, verbLength, RequestVerb) != 0 || line.size() == verbLength)
        return false;
    dir = line.substr(verbLength);
    return true;
}

// The answer line for an entry, without its line end.
std::string Server::Check(const std::string& dir)
{
    if (options.fixedVerdict)
        return std::to_string(options.verdict) + (options.note.empty() ? "" : " " + options.note);
    const std::string msgPath = dir + MsgName;
    auto answer = [&](uint32_t flags, const char* note) {
        return std::to_string(flags) + " " + (options.note.empty() ? note : options.note);
    };
    bool infected = false;
    std::string reason;
    if (!ContainsTestString(msgPath, infected, reason))
        return "32 " + reason;
    if (infected)
        return answer(2, "infected: EICAR-Test-File");
    if (options.addHeader.empty())
        return answer(1, "clean");
    if (!InsertHeaderLine(msgPath, options.addHeader, reason))
        return "32 " + reason;
    return answer(0x201, "clean");
}

void Server::Serve(int client)
{
    std::string dir;
    if (!ReadRequest(client, dir)) {
        if (!stopRequested)
            Say("no request line; connection closed without an answer");
        return;
    }
    if (options.delayMs > 0 && !WaitReadable(-1, options.delayMs) && stopRequested)
        return;
    const std::string answer = Check(dir);
    const std::string line = answer + "\n";
    std::size_t done = 0;
    while (done < line.size()) {
        ssize_t count = ::send(client, line.data() + done, line.size() - done, MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0) {
            int error = errno;
            Say(dir + ": can not answer: " + SystemText(error));
            return;
        }
        done += static_cast<std::size_t>(count);
    }
    Say(dir + ": " + answer);
}

} // namespace

int RunServer(const DaemonOptions& options)
{
    Server server(options);
    return server.Run();
}
