// tools/quelt-refd/Privileges.h: becoming the account. Started as root the
// daemon hands the socket it bound to the account (owner, mode 0660) and then
// drops to it for good; started as the account itself it has nothing to do.
// Throws std::invalid_argument for an unknown account or a change that
// needs root, std::domain_error when a step fails.
#pragma once

#include <string>

// user: the account, empty to stay who we are.
void DropPrivileges(const std::string& user, const std::string& socketPath);
