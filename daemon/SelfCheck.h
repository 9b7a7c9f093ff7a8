// daemon/SelfCheck.h: the daemon's side of "quelt-refd --check":
// the base directory, "msgs/" and the socket as the filter and the daemon
// need them, and one real round trip of a clean message through the running
// daemon with a throw-away entry. Each finding is one line of the report.
#pragma once

#include <pwd.h>
#include <string>

class CheckReport;

// False when the daemon cannot be reached (no base directory, no socket):
// the checks that talk to it are then pointless.
bool CheckLayout(CheckReport& report, const std::string& baseDir, const passwd& account);

// CHECK of a clean message; a pass is all well.
void CheckDaemonAnswers(CheckReport& report, const std::string& baseDir, const passwd& account);
