// tests/quelt-refd/Engines.h: private ClamAV, SpamAssassin and rspamd
// daemons on sockets in a fresh directory: clamd with a signature database
// written here (the anti-virus test file's MD5), spamd and rspamd with
// Debian's shipped rules, offline. Ready when the constructor returns (it
// connects until each socket answers); killed at the end.
#pragma once

#include <poll.h>
#include <signal.h>

#include <cstring>
#include <memory>
#include <stdexcept>

#include <boost/asio/ip/tcp.hpp>

#include "support/ChildProcess.h"
#include "support/PlayedDaemon.h"
#include "support/TempDir.h"

// Connects every 20 ms until socketPath answers, within the child's bound.
inline void AwaitSocket(const std::string& socketPath)
{
    for (int waited = 0; waited <= ChildProcess::BoundMs * 2; waited += 20) {
        const int fd = ConnectTo(socketPath);
        if (fd >= 0)
            return (void)::close(fd);
        (void)::poll(nullptr, 0, 20);
    }
    throw std::runtime_error(socketPath + " never answered");
}

// A TCP port nobody listens on now, for a private engine.
inline int FreePort()
{
    boost::asio::io_context io;
    const boost::asio::ip::tcp::acceptor probe(io, {boost::asio::ip::address_v4::loopback(), 0});
    return probe.local_endpoint().port();
}

// Listens on a Unix socket and on 127.0.0.1 (tcpAddress), where it takes
// streams up to 80 KiB.
class Clamd
{
public:
    Clamd()
    {
        boost::filesystem::create_directories(dir / "db");
        // Eicar's MD5, size and the name clamd reports (a changed Eicar fails
        // the virus rows loudly).
        WriteFile(dir / "db/t.hdb", "44d88612fea8a8f36de82e1278abb02f:68:eicar.com\n");
        WriteFile(dir / "clamd.conf",
                  "LocalSocket " + socket + "\nDatabaseDirectory " + (dir / "db") +
                      "\nForeground yes\nAlertExceedsMax yes\nMaxFileSize 64K\nMaxScanSize 64K\n"
                      "LogFile " +
                      (dir / "clamd.log") + "\nTCPAddr 127.0.0.1\nTCPSocket " +
                      std::to_string(port) + "\nStreamMaxLength 80K\n");
        Start();
    }
    // Killed and reaped: its sockets no longer take connections.
    void Kill() { process.reset(); }
    // Started (again) on the same sockets.
    void Start()
    {
        process = std::make_unique<ChildProcess>(
            std::vector<std::string>{"/usr/sbin/clamd", "-c", dir / "clamd.conf"});
        AwaitSocket(socket);
    }

    TempDir dir;
    const std::string socket = dir / "clamd.sock";
    const int port = FreePort();
    const std::string tcpAddress = "127.0.0.1:" + std::to_string(port);

private:
    std::unique_ptr<ChildProcess> process;
};

class Spamd
{
public:
    Spamd()
    {
        boost::filesystem::create_directories(dir / "site");
        for (const auto& file : boost::filesystem::directory_iterator("/etc/spamassassin"))
            if (file.path().extension() == ".pre")
                // Read and written, not copied: an overlaid /etc is another device.
                WriteFile((dir.Path() / "site" / file.path().filename()).string(),
                          ReadFile(file.path().string()));
        WriteFile(dir / "site/local.cf", "dns_available no\n");
        process = std::make_unique<ChildProcess>(std::vector<std::string>{
            "/usr/sbin/spamd", "--socketpath=" + socket, "--socketmode=0666", "-u", "nobody",
            "--local", "--siteconfigpath=" + (dir / "site"), "--syslog=" + (dir / "spamd.log")});
        AwaitSocket(socket);
    }
    // Its children end with it; after SIGKILL they would stay.
    ~Spamd() { process->Signal(SIGTERM), (void)process->Wait(); }

    TempDir dir;
    const std::string socket = dir / "spamd.sock";

private:
    std::unique_ptr<ChildProcess> process;
};

// rspamd's normal worker on a Unix socket, configured by tests/quelt-refd/
// rspamd-conf (see there). Ready when /ping answers: start-up reads every rule, up to a minute
// on a loaded machine, while the socket already takes connections.
class Rspamd
{
public:
    // conf: the directory of rspamd.conf, its local configuration too.
    explicit Rspamd(const std::string& conf)
        // -i: a test run as root keeps rspamd's workers as root.
        : process({"/usr/bin/rspamd", "-f", "-i", "-c", conf + "/rspamd.conf", "--var",
                   "LOCAL_CONFDIR=" + conf, "--var", "DBDIR=" + dir.Path().string(), "--var",
                   "RUNDIR=" + dir.Path().string()})
    {
        const std::string ping = "GET /ping HTTP/1.1\r\n\r\n";
        char answer[256] = "";
        for (int waited = 0; std::strstr(answer, "pong") == nullptr; waited += 100) {
            if (waited > 120 * 1000)
                throw std::runtime_error("rspamd at " + socket + " never answered /ping");
            (void)::poll(nullptr, 0, 100);
            const int fd = ConnectTo(socket);
            pollfd ready = {fd, POLLIN, 0};
            if (fd >= 0 && ::write(fd, ping.data(), ping.size()) > 0 && ::poll(&ready, 1, 1000) > 0)
                answer[std::max<ssize_t>(0, ::read(fd, answer, sizeof answer - 1))] = '\0';
            (void)::close(fd); // -1 when nothing listens yet
        }
    }
    // Its workers end with it; after SIGKILL they would go on answering.
    ~Rspamd() { process.Signal(SIGTERM), (void)process.Wait(); }

    TempDir dir;
    const std::string socket = dir / "rspamd.sock";

private:
    ChildProcess process;
};
