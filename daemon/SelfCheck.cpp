// daemon/SelfCheck.cpp: each check says what it found in plain
// words. The layout wanted is the package's: the base directory writable by
// nobody else, "msgs/" root:<account group> 1770 (sticky: the account may
// add entries, not remove the filter's), the socket the account's, 0660.
// The throw-away entry is made as the filter makes entries (owned by the
// account) and removed again whatever the answer.
#include "SelfCheck.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "CheckReport.h"
#include "EngineSocket.h"
#include "shared/conversation/Conversation.h"

namespace
{

const char* const TestMessage =
    "From: <quelt-refd-check@localhost>\nTo: <postmaster@localhost>\n"
    "Subject: quelt-refd --check\nMessage-ID: <quelt-refd-check@localhost>\n"
    "Date: Thu, 01 Jan 2026 00:00:00 +0000\n\nA clean test message of quelt-refd --check.\n";
// The envelope as the filter writes it beside every message: engines that
// are given the envelope (rspamd) read it.
const char* const TestEnvelope = "from <quelt-refd-check@localhost>\nto <postmaster@localhost>\n";
constexpr mode_t MsgsMode = 01770;
constexpr mode_t SocketMode = 0660;

std::string Octal(mode_t mode)
{
    char text[8];
    std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
    return text;
}

std::string GroupName(gid_t gid)
{
    const group* found = ::getgrgid(gid);
    return found != nullptr ? found->gr_name : std::to_string(gid);
}

// Sends CHECK for a fresh entry owned by the account; returns the answer
// line or the reason there was none.
std::string RoundTrip(const std::string& baseDir, const passwd& account, bool& answered)
{
    answered = false;
    const std::string dir = baseDir + conversation::EntriesFolder + "check." + std::to_string(::getpid());
    if (::mkdir(dir.c_str(), 0700) != 0)
        return "can not make " + dir + ": " + std::strerror(errno);
    std::string answer;
    // Handed over through the descriptors made here, never by name.
    Fd dirFd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    const auto make = [&](const char* name, const char* text) {
        Fd file(dirFd.IsValid() ? ::openat(dirFd.Get(), name,
                                           O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                                           0660)
                                : -1);
        const bool made = file.IsValid() && WriteAll(file.Get(), text, std::strlen(text)) &&
                          ::fchown(file.Get(), account.pw_uid, account.pw_gid) == 0;
        return file.Close() == 0 && made;
    };
    const bool made = make(".envelope", TestEnvelope) && make(".msg", TestMessage);
    if (!made || ::fchown(dirFd.Get(), account.pw_uid, account.pw_gid) != 0) {
        answer = "can not make the test entry " + dir + ": " + std::strerror(errno);
    } else {
        try {
            const Deadline deadline = Clock::now() + std::chrono::seconds(60);
            Fd socket = ConnectWithDeadline(UnixSocketAddress(baseDir + conversation::SocketName), deadline);
            const std::string request = conversation::RequestVerb + dir + "\n";
            (void)SendAll(socket.Get(), request.data(), request.size(), deadline);
            char block[512];
            std::size_t count;
            while (answer.find('\n') == std::string::npos &&
                   (count = ReceiveSome(socket.Get(), block, sizeof block, deadline)) > 0)
                answer.append(block, count);
            answered = answer.find('\n') != std::string::npos;
            answer = answered ? answer.substr(0, answer.find('\n')) : "no answer line";
        } catch (const std::exception& failure) {
            answer = failure.what();
        }
    }
    // Best effort: the entry is the check's own, and a leftover is named.
    (void)::unlink((dir + "/.msg.refd-new").c_str());
    (void)::unlink((dir + "/.decision").c_str()); // the record of the answer
    (void)::unlink((dir + "/.msg").c_str());
    (void)::unlink((dir + "/.envelope").c_str());
    if (::rmdir(dir.c_str()) != 0)
        answer += " (and " + dir + " is left over: remove it)";
    return answer;
}

} // namespace

std::string StartFix(const std::string& baseDir)
{
    return "start the daemon: systemctl start quelt-refd, or quelt-refd --basedir " + baseDir +
           " --user ACCOUNT and its engines; journalctl -u quelt-refd says why it stopped";
}

bool CheckLayout(CheckReport& report, const std::string& baseDir, const passwd& account)
{
    const std::string group = GroupName(account.pw_gid);
    struct stat status;
    if (::lstat(baseDir.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        report.Problem("base directory " + baseDir, "missing or not a directory",
                       "reinstall the package, or mkdir -m 0750 " + baseDir);
        return false;
    }
    if ((status.st_mode & 002) != 0)
        report.Problem("base directory " + baseDir,
                       "writable by everyone (" + Octal(status.st_mode) + ")", "chmod o-w " + baseDir);
    else if (status.st_uid == account.pw_uid)
        report.Problem("base directory " + baseDir,
                       "the account's own: it could rearrange it",
                       "chown root:" + group + " " + baseDir + " && chmod 0750 " + baseDir);
    else if (status.st_gid != account.pw_gid) // the filter gives "msgs/" this group
        report.Problem("base directory " + baseDir,
                       "group " + GroupName(status.st_gid) + ", wanted " + group,
                       "chgrp " + group + " " + baseDir);
    else
        report.Ok("base directory " + baseDir + " (" + Octal(status.st_mode) + ")");

    const std::string msgs = baseDir + conversation::EntriesFolderName;
    const std::string fix = "chown root:" + group + " " + msgs + " && chmod " +
                            Octal(MsgsMode) + " " + msgs;
    if (::lstat(msgs.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
        report.Problem(msgs, "missing or not a directory", "mkdir " + msgs + " && " + fix);
    else if (status.st_uid != 0 || status.st_gid != account.pw_gid ||
             (status.st_mode & 07777) != MsgsMode)
        report.Problem(msgs,
                       std::to_string(status.st_uid) + ":" + GroupName(status.st_gid) + " mode " +
                           Octal(status.st_mode) + ", wanted root:" + group + " mode " +
                           Octal(MsgsMode),
                       fix);
    else
        report.Ok(msgs + " (root:" + group + ", " + Octal(MsgsMode) + ")");

    const std::string socket = baseDir + conversation::SocketName;
    if (::lstat(socket.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode)) {
        report.Problem("socket " + socket, "missing or not a socket: the daemon is not running",
                       StartFix(baseDir));
        return false;
    }
    // systemd's socket unit makes it the account's; the daemon started as
    // root makes it root's with the account's group.
    const bool owned =
        status.st_uid == account.pw_uid || (status.st_uid == 0 && status.st_gid == account.pw_gid);
    if (!owned || (status.st_mode & 0777) != SocketMode)
        report.Problem("socket " + socket,
                       "neither " + std::string(account.pw_name) + "'s nor root:" + group +
                           ", each with mode " + Octal(SocketMode),
                       "let systemd make it again (systemctl stop quelt-refd quelt-refd.socket && "
                       "systemctl start quelt-refd)");
    else
        report.Ok("socket " + socket);
    return true;
}

void CheckDaemonAnswers(CheckReport& report, const std::string& baseDir, const passwd& account)
{
    bool answered = false;
    const std::string answer = RoundTrip(baseDir, account, answered);
    const unsigned long flags = answered ? std::strtoul(answer.c_str(), nullptr, 10) : 0;
    if (!answered)
        report.Problem("daemon", "no answer: " + answer, StartFix(baseDir));
    else if ((flags & 1) == 0)
        report.Problem("daemon", "answered '" + answer + "' to a clean message",
                       "read the daemon's log (journalctl -u quelt-refd) for the cause");
    else
        report.Ok("daemon answers: '" + answer + "' to a clean message");
}
