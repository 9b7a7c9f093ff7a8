// tools/quelt-refd/SelfCheck.h: "quelt-refd --check": looks at a set-up as
// the filter and the daemon need it (the base directory, "msgs/", the
// account, the socket) and makes one real round trip through the running
// daemon with a throw-away entry. Prints one finding per line on standard
// output, each problem with its fix, and returns the exit status: 0 only
// when all is well.
#pragma once

#include <string>

int RunSelfCheck(const std::string& baseDir, const std::string& user);
