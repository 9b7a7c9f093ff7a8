// tests/quelt-refd/Engines.h: private ClamAV and SpamAssassin daemons on
// sockets in a fresh directory: clamd with a signature database written
// here (the anti-virus test file's MD5), spamd with Debian's shipped rules,
// offline. Ready when the constructor returns (it connects until each
// socket answers); killed at the end.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <memory>
#include <stdexcept>

#include "support/ChildProcess.h"
#include "support/PlayedDaemon.h"
#include "support/Replies.h"
#include "support/TempDir.h"

// Connects every 20 ms until socketPath answers, within the child's bound.
inline void AwaitSocket(const std::string& socketPath)
{
    int fd;
    for (int waited = 0; (fd = ConnectTo(socketPath)) < 0; waited += 20) {
        if (waited > ChildProcess::BoundMs * 2)
            throw std::runtime_error(socketPath + " never answered");
        (void)::poll(nullptr, 0, 20);
    }
    ::close(fd);
}

// A TCP port nobody listens on now, for a private engine.
inline int FreePort()
{
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        throw std::runtime_error("no free port");
    ::close(fd);
    return ntohs(address.sin_port);
}

// Listens on a Unix socket and on 127.0.0.1 (tcpAddress), where it takes
// streams up to 80 KiB.
class Clamd
{
public:
    Clamd()
    {
        boost::filesystem::create_directories(dir / "db");
        WriteFile(dir / "eicar.com", Eicar);
        WriteFile(dir / "clamd.conf",
                  "LocalSocket " + socket + "\nDatabaseDirectory " + (dir / "db") +
                      "\nForeground yes\nAlertExceedsMax yes\nMaxFileSize 64K\nMaxScanSize 64K\n"
                      "LogFile " +
                      (dir / "clamd.log") + "\nTCPAddr 127.0.0.1\nTCPSocket " +
                      std::to_string(port) + "\nStreamMaxLength 80K\n");
        ChildProcess sigtool({"/usr/bin/sigtool", "--md5", dir / "eicar.com"});
        std::string hdb;
        if (sigtool.Wait(&hdb) != 0)
            throw std::runtime_error("sigtool failed");
        WriteFile(dir / "db/t.hdb", hdb);
        process = std::make_unique<ChildProcess>(
            std::vector<std::string>{"/usr/sbin/clamd", "-c", dir / "clamd.conf"});
        AwaitSocket(socket);
    }
    // Killed and reaped: its socket no longer takes connections.
    void Kill()
    {
        process->Signal(SIGKILL);
        (void)process->Wait();
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
                boost::filesystem::copy_file(file.path(),
                                             dir.Path() / "site" / file.path().filename());
        WriteFile(dir / "site/local.cf", "dns_available no\n");
        process = std::make_unique<ChildProcess>(std::vector<std::string>{
            "/usr/sbin/spamd", "--socketpath=" + socket, "-u", "nobody", "--local",
            "--siteconfigpath=" + (dir / "site"), "--syslog=" + (dir / "spamd.log")});
        AwaitSocket(socket);
    }

    TempDir dir;
    const std::string socket = dir / "spamd.sock";

private:
    std::unique_ptr<ChildProcess> process;
};
