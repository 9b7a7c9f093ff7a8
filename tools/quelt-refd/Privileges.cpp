// tools/quelt-refd/Privileges.cpp: initgroups, setgid, setuid in that order,
// then a check that root cannot be taken back. Runs before any other thread
// exists, so the process-wide credentials change at once.
#include "Privileges.h"

#include <cerrno>
#include <cstring>
#include <grp.h>
#include <pwd.h>
#include <stdexcept>
#include <unistd.h>

void DropPrivileges(const std::string& user, const std::string& socketPath)
{
    if (user.empty())
        return;
    errno = 0;
    const passwd* account = ::getpwnam(user.c_str()); // single-threaded here
    if (account == nullptr)
        throw std::invalid_argument("unknown user " + user);
    const uid_t uid = account->pw_uid;
    const gid_t gid = account->pw_gid;
    if (::geteuid() == uid)
        return;
    if (::geteuid() != 0)
        throw std::invalid_argument("--user " + user + " needs the daemon started as root or as " +
                                    user);
    auto fail = [](const std::string& what) {
        int error = errno;
        throw std::domain_error(what + " error:" + std::strerror(error));
    };
    // The base directory is the account's: a link planted as the socket is
    // handed over itself, never what it points to.
    if (::lchown(socketPath.c_str(), uid, gid) != 0)
        fail("chown " + socketPath);
    if (::initgroups(user.c_str(), gid) != 0)
        fail("initgroups " + user);
    if (::setgid(gid) != 0)
        fail("setgid " + user);
    if (::setuid(uid) != 0)
        fail("setuid " + user);
    if (::setuid(0) == 0 || ::getuid() != uid || ::geteuid() != uid)
        throw std::logic_error("root privileges are still there after setuid " + user);
}
