// daemon/Privileges.h: the account the daemon runs as. Started as
// root the daemon binds its socket with the account's group (BindAsGroup)
// and then drops to the account for good; started as the account itself it
// has nothing to do. Throws std::invalid_argument for an unknown account or a
// change that needs root, std::domain_error when a step fails.
#pragma once

#include <string>
#include <sys/socket.h>
#include <sys/types.h>

struct Account {
    std::string name; // empty: stay who we are
    uid_t uid = 0;
    gid_t gid = 0;
};

// The account named user (empty: an empty Account).
Account FindAccount(const std::string& user);

// True when the process must still become account (it is root, not it).
bool MustDrop(const Account& account);

// Runs bind with the file-creation mask 0117 and, when the process is root
// and must become account, the account's group as file-system group: the
// socket file is made root:<group> 0660 at once, so nothing is changed by
// path afterwards. Both are restored before it returns. Returns bind's result
// with errno kept.
int BindAsGroup(const Account& account, int fd, const struct sockaddr* address, socklen_t length);

void DropPrivileges(const Account& account);
