// daemon/Privileges.cpp: initgroups, setgid, setuid in that order,
// then a check that root cannot be taken back. Runs before any other thread
// exists, so the process-wide credentials and the file-creation mask change
// at once.
#include "Privileges.h"

#include <cerrno>
#include <cstring>
#include <grp.h>
#include <pwd.h>
#include <stdexcept>
#include <sys/fsuid.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

Account FindAccount(const std::string& user)
{
    Account account;
    if (user.empty())
        return account;
    const passwd* found = ::getpwnam(user.c_str()); // single-threaded here
    if (found == nullptr)
        throw std::invalid_argument("unknown user " + user);
    account.name = user;
    account.uid = found->pw_uid;
    account.gid = found->pw_gid;
    return account;
}

bool MustDrop(const Account& account)
{
    if (account.name.empty() || ::geteuid() == account.uid)
        return false;
    if (::geteuid() != 0)
        throw std::invalid_argument("--user " + account.name +
                                    " needs the daemon started as root or as " + account.name);
    return true;
}

int BindAsGroup(const Account& account, int fd, const struct sockaddr* address, socklen_t length)
{
    // Only the file-system group changes: a file-system user other than root
    // would drop root's right to write the base directory, which is root's.
    const bool asGroup = MustDrop(account);
    const gid_t oldGroup = asGroup ? static_cast<gid_t>(::setfsgid(account.gid)) : 0;
    if (asGroup && static_cast<gid_t>(::setfsgid(static_cast<gid_t>(-1))) != account.gid)
        throw std::domain_error("setfsgid " + account.name + " error: group not taken");
    const mode_t oldMask = ::umask(0117);
    const int result = ::bind(fd, address, length);
    const int error = errno;
    (void)::umask(oldMask); // umask cannot fail
    if (asGroup)
        (void)::setfsgid(oldGroup); // back to root's own group, which root may always take
    errno = error;
    return result;
}

void DropPrivileges(const Account& account)
{
    if (!MustDrop(account))
        return;
    auto fail = [](const std::string& what) {
        int error = errno;
        throw std::domain_error(what + " error:" + std::strerror(error));
    };
    if (::initgroups(account.name.c_str(), account.gid) != 0)
        fail("initgroups " + account.name);
    if (::setgid(account.gid) != 0)
        fail("setgid " + account.name);
    if (::setuid(account.uid) != 0)
        fail("setuid " + account.name);
    if (::setuid(0) == 0 || ::getuid() != account.uid || ::geteuid() != account.uid)
        throw std::logic_error("root privileges are still there after setuid " + account.name);
}
