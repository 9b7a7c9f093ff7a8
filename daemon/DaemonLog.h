// daemon/DaemonLog.h: the daemon's log: syslog with the ident
// "quelt-refd" and the chosen facility, or standard error (one line each,
// "quelt-refd: " first) for tests and foreground runs. Safe from any thread.
#pragma once

#include <string>
#include <syslog.h>

// Sends the log to syslog under facility (LOG_MAIL, ...) or, when toStderr,
// to standard error. Called once, before any thread starts.
void OpenDaemonLog(bool toStderr, int facility);

// One line at priority (LOG_INFO, LOG_WARNING, LOG_ERR).
void Say(int priority, const std::string& text);

// The syslog facility named name ("mail", "daemon", "local0" ...); -1 for an
// unknown name.
int FacilityByName(const std::string& name);
