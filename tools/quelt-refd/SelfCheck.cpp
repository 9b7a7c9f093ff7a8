// tools/quelt-refd/SelfCheck.cpp: each check says what it found in plain
// words; a failed check that makes the later ones meaningless ends the run.
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

#include "EngineSocket.h"

namespace
{

const char* const TestMessage = "Subject: quelt-refd --check\n\nA clean test message.\n";

class Report
{
public:
    void Ok(const std::string& text) { std::printf("ok:      %s\n", text.c_str()); }
    void Problem(const std::string& text, const std::string& fix)
    {
        std::printf("PROBLEM: %s\n         fix: %s\n", text.c_str(), fix.c_str());
        problems++;
    }
    int Status() const
    {
        std::printf(problems == 0 ? "all is well\n" : "%d problem(s) found\n", problems);
        return problems == 0 ? 0 : 1;
    }

private:
    int problems = 0;
};

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
    const std::string dir = baseDir + "msgs/check." + std::to_string(::getpid());
    if (::mkdir(dir.c_str(), 0700) != 0)
        return "can not make " + dir + ": " + std::strerror(errno);
    const std::string msg = dir + "/.msg";
    std::string answer;
    // Handed over through the descriptors made here, never by name.
    Fd dirFd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    Fd file(dirFd.IsValid() ? ::openat(dirFd.Get(), ".msg",
                                       O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0660)
                            : -1);
    bool made = file.IsValid() && WriteAll(file.Get(), TestMessage, std::strlen(TestMessage)) &&
                ::fchown(file.Get(), account.pw_uid, account.pw_gid) == 0;
    made = file.Close() == 0 && made;
    if (!made || ::fchown(dirFd.Get(), account.pw_uid, account.pw_gid) != 0) {
        answer = "can not make the test entry " + dir + ": " + std::strerror(errno);
    } else {
        try {
            const Deadline deadline = Clock::now() + std::chrono::seconds(60);
            Fd socket = ConnectWithDeadline(UnixSocketAddress(baseDir + "quelt.sock"), deadline);
            const std::string request = "CHECK " + dir + "\n";
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
    (void)::unlink(msg.c_str());
    if (::rmdir(dir.c_str()) != 0)
        answer += " (and " + dir + " is left over: remove it)";
    return answer;
}

} // namespace

int RunSelfCheck(const std::string& baseDir, const std::string& user)
{
    Report report;
    const passwd* found = user.empty() ? nullptr : ::getpwnam(user.c_str());
    if (found == nullptr || found->pw_uid == 0) {
        report.Problem(user.empty() ? "no account given" : "account '" + user + "' unusable",
                       "give --user with the daemon's account (not root); create it with "
                       "'adduser --system --group vorex'");
        return report.Status();
    }
    const passwd account = *found;
    const std::string group = GroupName(account.pw_gid);
    report.Ok("account " + user + " (uid " + std::to_string(account.pw_uid) + ", group " + group +
              ")");

    struct stat status;
    if (::lstat(baseDir.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        report.Problem(baseDir + " is not a directory", "mkdir -m 0755 " + baseDir);
        return report.Status();
    }
    if ((status.st_mode & 002) != 0)
        report.Problem(baseDir + " is writable by everyone (" + Octal(status.st_mode) + ")",
                       "chmod o-w " + baseDir);
    else if (status.st_uid == account.pw_uid)
        report.Problem(baseDir + " is " + user + "'s: the account could rearrange it",
                       "chown root:" + group + " " + baseDir + " && chmod 0750 " + baseDir);
    else
        report.Ok("base directory " + baseDir + " (" + Octal(status.st_mode) + ")");

    const std::string msgs = baseDir + "msgs";
    if (::lstat(msgs.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        report.Problem(msgs + " is missing or not a directory",
                       "mkdir " + msgs + " && chown root:" + group + " " + msgs +
                           " && chmod 1770 " + msgs);
    } else if (status.st_uid != 0 || status.st_gid != account.pw_gid ||
               (status.st_mode & 07777) != 01770) {
        report.Problem(msgs + " is " + std::to_string(status.st_uid) + ":" +
                           GroupName(status.st_gid) + " mode " + Octal(status.st_mode) +
                           ", wanted root:" + group + " mode 1770",
                       "chown root:" + group + " " + msgs + " && chmod 1770 " + msgs);
    } else {
        report.Ok(msgs + " (root:" + group + ", 1770)");
    }

    const std::string socket = baseDir + "quelt.sock";
    const std::string start = "start the daemon: quelt-refd --basedir " + baseDir + " --user " +
                              user + " (systemctl start quelt-refd)";
    if (::lstat(socket.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode)) {
        report.Problem(socket + " is missing or not a socket", start);
        return report.Status();
    }
    // systemd's socket unit makes it the account's; the daemon started as
    // root makes it root's with the account's group.
    const bool owned =
        status.st_uid == account.pw_uid || (status.st_uid == 0 && status.st_gid == account.pw_gid);
    if (!owned || (status.st_mode & 0777) != 0660)
        report.Problem(socket + " is neither " + user + "'s nor root:" + group +
                           ", each with mode 0660",
                       "restart the daemon (systemctl restart quelt-refd.socket quelt-refd)");
    else
        report.Ok("socket " + socket);

    bool answered = false;
    const std::string answer = RoundTrip(baseDir, account, answered);
    const unsigned long flags = answered ? std::strtoul(answer.c_str(), nullptr, 10) : 0;
    if (!answered)
        report.Problem("no answer from the daemon: " + answer, start);
    else if ((flags & 1) == 0)
        report.Problem(
            "the daemon answered '" + answer + "' to a clean message",
            "read the daemon's log (journalctl -u quelt-refd, or the mail log) for the cause");
    else
        report.Ok("round trip: the daemon answered '" + answer + "'");
    return report.Status();
}
