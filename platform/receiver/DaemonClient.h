// platform/receiver/DaemonClient.h: one bounded conversation with the checking
// daemon, internal to the library: "CHECK <dir>\n" out, one answer line back.
// Never throws and never waits past the deadline; every failure is logged at
// error level and answered VerdictDaemonError.
#pragma once

#include <cstddef>
#include <string>

#include "shared/conversation/Conversation.h"

// The longest answer line accepted, its line end included.
constexpr std::size_t MaxAnswerLine = 8192;

// Asks the daemon listening on socketPath for its verdict on the entry
// directory entryDir, within timeoutSeconds (above 0) from the call. On
// success returns the flags and sets note to the answer's text (empty when
// the line carried none); on failure returns VerdictDaemonError with note
// empty.
VerdictFlags AskDaemon(const std::string& socketPath, const std::string& entryDir,
                       int timeoutSeconds, std::string& note);

// Tells the daemon on socketPath that the flush after the rewrite of the
// spool file checked in entryDir failed, within timeoutSeconds; waits for no
// answer. A failure is logged at error level, and nothing more: the report
// is for the administrator's count, the message's verdict stands.
void ReportFsyncFailure(const std::string& socketPath, const std::string& entryDir,
                        int timeoutSeconds);
