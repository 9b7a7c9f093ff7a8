// frame/Protocol.h: the program's side of ZMailer's content-filter
// conversation: the readiness marker and the one reply line per job. All of it
// goes straight to descriptor 1, never through a buffered stream.
#pragma once

#include <cstdint>
#include <string>

#include "shared/conversation/Conversation.h"

// The reply line for an action code, without a note, line end included.
std::string ReplyLine(int32_t actionCode);

// Writes "#hungry\n" at interface 1 and above, nothing below.
// Throws std::domain_error "error in hungry write" when it is not written whole.
void WriteHungry(int32_t interface);

// Writes the reply line for actionCode, with " " and note before the line end
// when note is present and not empty. A failed write goes unnoticed.
void WriteReply(int32_t actionCode, const char* note = nullptr);

// Answers the first of pass, reject, tempfail, discard whose bit is set in
// flags, or else the whole value taken as an action code.
void WriteVerdictReply(VerdictFlags flags, const char* note = nullptr);
