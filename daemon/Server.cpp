// daemon/Server.cpp: a fixed pool of --max-checks threads, each
// waiting on the one listening socket and a stop pipe, then serving
// one connection start to end. Threads rather than an event loop because
// the engines' conversations are short sequences of blocking steps (connect,
// send, wait for a verdict) that read plainly as such, each bounded by a
// poll deadline; the pool bounds the checks in flight, and a client that
// sends nothing holds only its own thread until the request deadline. The
// main thread waits for the stop signals with sigwait, so no handler runs.
#include "Server.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <systemd/sd-daemon.h>

#include "DaemonLog.h"
#include "EngineSocket.h"
#include "shared/fd/Fd.h"
#include "Privileges.h"
#include "Sweeper.h"
#include "shared/conversation/Conversation.h"

namespace
{

using conversation::FsyncFailedVerb;
using conversation::RequestVerb;
using conversation::SocketName;
// A request is "CHECK " and a path; longer lines are not requests.
constexpr std::size_t MaxRequestLine = 8192;
// The filter sends its request at once and reads the answer at once.
constexpr int ClientTimeoutSeconds = 10;

std::string SystemText(int error)
{
    return std::strerror(error);
}

// Removes a socket that nobody answers on; refuses a path where another
// daemon answers or that is not a socket.
void ClaimSocketPath(const EngineAddress& socket)
{
    struct stat status;
    if (::lstat(socket.text.c_str(), &status) != 0) {
        int error = errno;
        if (error == ENOENT)
            return;
        throw std::domain_error("lstat " + socket.text + " error:" + SystemText(error));
    }
    if (!S_ISSOCK(status.st_mode))
        throw std::invalid_argument(socket.text + " exists and is not a socket; not started");
    try {
        (void)ConnectWithDeadline(socket, Clock::now() + std::chrono::seconds(1));
    } catch (const std::domain_error&) {
        // Nobody answers: a stale socket of a daemon that died.
        if (::unlink(socket.text.c_str()) != 0 && errno != ENOENT) {
            int error = errno;
            throw std::domain_error("unlink " + socket.text + " error:" + SystemText(error));
        }
        return;
    }
    throw std::invalid_argument("another daemon answers on " + socket.text + "; not started");
}

// The listening socket that systemd passed (quelt-refd.socket), or an
// invalid Fd when none was passed. It must be the one Unix stream socket
// listening on path; the daemon never binds or removes that path itself.
Fd TakeSystemdSocket(const std::string& path)
{
    const int count = ::sd_listen_fds(1);
    if (count < 0)
        throw std::domain_error("sd_listen_fds error:" + SystemText(-count));
    if (count == 0)
        return Fd(-1);
    Fd passed(SD_LISTEN_FDS_START);
    for (int extra = 1; extra < count; ++extra)
        (void)::close(SD_LISTEN_FDS_START + extra); // refused below; never used
    if (count != 1 || ::sd_is_socket_unix(passed.Get(), SOCK_STREAM, 1, path.c_str(), 0) <= 0)
        throw std::invalid_argument("systemd passed " + std::to_string(count) +
                                    " socket(s), wanted one Unix stream socket listening on " +
                                    path + "; not started");
    const int flags = ::fcntl(passed.Get(), F_GETFL);
    if (flags < 0 || ::fcntl(passed.Get(), F_SETFL, flags | O_NONBLOCK) != 0 ||
        ::fcntl(passed.Get(), F_SETFD, FD_CLOEXEC) != 0) {
        int error = errno;
        throw std::domain_error("fcntl on the socket from systemd error:" + SystemText(error));
    }
    return passed;
}

class Server
{
public:
    Server(const ServerSettings& settings, const Checker& checker)
        : settings(settings), checker(checker),
          socket(UnixSocketAddress(settings.baseDir + SocketName)),
          account(FindAccount(settings.user))
    {
    }
    int Run();

private:
    void Listen();
    void Work();
    void Serve(int client);
    // The path of a request line; report is set for a flush failure's report.
    std::string ReadRequest(int client, bool& report);
    // Asks every thread to stop: the pipe stays readable from now on.
    void RequestStop();

    const ServerSettings& settings;
    const Checker& checker;
    const EngineAddress socket;
    const Account account;
    bool fromSystemd = false; // the socket is systemd's: never unlinked here
    Fd listener{-1};
    Fd stopRead{-1};
    Fd stopWrite{-1};
    std::atomic<bool> failed{false};
};

void Server::Listen()
{
    listener = TakeSystemdSocket(socket.text);
    fromSystemd = listener.IsValid();
    if (fromSystemd)
        return;
    ClaimSocketPath(socket);
    listener = Fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!listener.IsValid()) {
        int error = errno;
        throw std::domain_error("socket error:" + SystemText(error));
    }
    // Owner, group and mode are the socket file's from its creation on.
    if (BindAsGroup(account, listener.Get(), reinterpret_cast<const sockaddr*>(&socket.address),
                    socket.length) != 0) {
        int error = errno;
        throw std::domain_error("bind " + socket.text + " error:" + SystemText(error));
    }
    if (::listen(listener.Get(), 64) != 0) {
        int error = errno;
        (void)::unlink(socket.text.c_str()); // ours, and useless unlistened
        throw std::domain_error("listen on " + socket.text + " error:" + SystemText(error));
    }
}

int Server::Run()
{
    // Stop signals stay blocked in every thread; the main thread takes them
    // with sigwait. A client that left must not kill the daemon: SIGPIPE
    // is ignored (sends also say MSG_NOSIGNAL).
    sigset_t stops;
    sigemptyset(&stops);
    sigaddset(&stops, SIGTERM);
    sigaddset(&stops, SIGINT);
    if (::pthread_sigmask(SIG_BLOCK, &stops, nullptr) != 0 || ::signal(SIGPIPE, SIG_IGN) == SIG_ERR)
        throw std::domain_error("can not set up signals");
    int pipeEnds[2];
    if (::pipe2(pipeEnds, O_CLOEXEC) != 0) {
        int error = errno;
        throw std::domain_error("pipe error:" + SystemText(error));
    }
    stopRead = Fd(pipeEnds[0]);
    stopWrite = Fd(pipeEnds[1]);

    Listen();
    DropPrivileges(account);
    // Bound as the account, after the signal mask: the listener's threads
    // never run as root and never take a stop signal.
    if (settings.metrics != nullptr)
        settings.metrics->Serve(settings.metricsListen);
    const std::string msgsDir = settings.baseDir + conversation::EntriesFolderName;
    SweepKeptEntries(msgsDir, settings.keepHours, settings.metrics);

    // Connections wait in the listener's queue meanwhile.
    for (UpstreamPool* pool : settings.pools)
        pool->PingEach();

    std::vector<std::thread> threads;
    threads.emplace_back(RunSweeper, msgsDir, settings.keepHours, stopRead.Get(), settings.metrics);
    if (!settings.pools.empty()) // the test engine has none
        threads.emplace_back(RunProber, settings.pools, stopRead.Get());
    for (int i = 0; i < settings.maxChecks; ++i)
        threads.emplace_back(&Server::Work, this);
    Say(LOG_INFO, "listening on " + socket.text);
    // The unit (Type=notify) is started only now: options read, the socket
    // ours, each engine asked once. Without systemd this does nothing.
    (void)::sd_notify(0, "READY=1");
    if (settings.user.empty() && ::geteuid() == 0)
        Say(LOG_WARNING, "running as root: give --user to check mail as an account");

    int signal = 0;
    while (::sigwait(&stops, &signal) != 0) {
    }
    (void)::sd_notify(0, "STOPPING=1");
    RequestStop();
    for (std::thread& thread : threads)
        thread.join();
    listener = Fd(-1);
    if (!fromSystemd && ::unlink(socket.text.c_str()) != 0) {
        // After dropping root the base directory is not ours to write: the
        // stale socket is harmless, the next start removes it.
        int error = errno;
        Say(LOG_WARNING, "can not remove " + socket.text + ": " + SystemText(error));
    }
    Say(LOG_INFO, failed ? "stopped after a failure" : "stopped");
    return failed ? 1 : 0;
}

void Server::RequestStop()
{
    const char byte = 0;
    (void)WriteAll(stopWrite.Get(), &byte, 1); // one byte in an empty pipe cannot fail
}

void Server::Work()
{
    // Each thread waits on its own epoll set; EPOLLEXCLUSIVE wakes one
    // waiting thread per new connection instead of the whole pool.
    Fd poller(::epoll_create1(EPOLL_CLOEXEC));
    epoll_event onListener = {EPOLLIN | EPOLLEXCLUSIVE, {}};
    onListener.data.fd = listener.Get();
    epoll_event onStop = {EPOLLIN, {}};
    onStop.data.fd = stopRead.Get();
    if (!poller.IsValid() ||
        ::epoll_ctl(poller.Get(), EPOLL_CTL_ADD, listener.Get(), &onListener) != 0 ||
        ::epoll_ctl(poller.Get(), EPOLL_CTL_ADD, stopRead.Get(), &onStop) != 0) {
        int error = errno;
        Say(LOG_ERR, "epoll error:" + SystemText(error));
        failed = true;
        (void)::kill(::getpid(), SIGTERM); // the main thread stops the rest
        return;
    }
    for (;;) {
        epoll_event ready[2];
        int count = ::epoll_wait(poller.Get(), ready, 2, -1);
        if (count < 0 && errno == EINTR)
            continue;
        bool stop = count < 0;
        for (int i = 0; i < count; ++i)
            stop = stop || ready[i].data.fd == stopRead.Get();
        if (stop) {
            if (count < 0) {
                int error = errno;
                Say(LOG_ERR, "epoll_wait error:" + SystemText(error));
                failed = true;
                (void)::kill(::getpid(), SIGTERM);
            }
            return;
        }
        Fd client(::accept4(listener.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (client.IsValid()) {
            Serve(client.Get());
            continue;
        }
        int error = errno;
        // Another thread took it, or the client left before we did.
        if (error == EAGAIN || error == EINTR || error == ECONNABORTED)
            continue;
        Say(LOG_ERR, "accept on " + socket.text + " error:" + SystemText(error));
        failed = true;
        (void)::kill(::getpid(), SIGTERM);
        return;
    }
}

std::string Server::ReadRequest(int client, bool& report)
{
    const Deadline deadline = Clock::now() + std::chrono::seconds(ClientTimeoutSeconds);
    std::string line;
    char block[512];
    while (line.find('\n') == std::string::npos) {
        if (line.size() > MaxRequestLine)
            throw std::logic_error("request line too long");
        std::size_t count = ReceiveSome(client, block, sizeof block, deadline);
        if (count == 0)
            throw std::logic_error("no request line");
        line.append(block, count);
    }
    line.erase(line.find('\n'));
    report = line.rfind(FsyncFailedVerb, 0) == 0;
    const std::size_t verbLength = std::strlen(report ? FsyncFailedVerb : RequestVerb);
    if ((!report && line.compare(0, verbLength, RequestVerb) != 0) || line.size() == verbLength)
        throw std::logic_error("not a request: '" + line.substr(0, 100) + "'");
    return line.substr(verbLength);
}

void Server::Serve(int client)
{
    // The connection's driver: a client that sends no request or does not
    // take its answer is logged and dropped; the daemon serves on.
    try {
        bool report = false;
        const std::string dir = ReadRequest(client, report);
        if (report) {
            if (settings.metrics != nullptr)
                settings.metrics->SpoolFsyncFailed();
            // Whoever may connect names the path: printable ASCII only.
            std::string named = dir;
            for (char& c : named)
                if (c < 0x20 || c > 0x7e)
                    c = '?';
            Say(LOG_ERR, named + ": the filter's flush of the rewritten spool file failed");
            return;
        }
        if (settings.delayMs > 0) {
            pollfd stop = {stopRead.Get(), POLLIN, 0};
            (void)::poll(&stop, 1, settings.delayMs); // cut short by a stop; a test knob only
        }
        const std::string line = checker.Check(dir) + "\n";
        const Deadline deadline = Clock::now() + std::chrono::seconds(ClientTimeoutSeconds);
        if (!SendAll(client, line.data(), line.size(), deadline))
            throw std::domain_error(dir + ": the filter left before the answer");
    } catch (const std::exception& failure) {
        Say(LOG_WARNING, std::string("connection closed without an answer: ") + failure.what());
    }
}

} // namespace

int RunServer(const ServerSettings& settings, const Checker& checker)
{
    Server server(settings, checker);
    return server.Run();
}
