// spool/EnvelopeReader.h: ReadEnvelope reads the ZMailer envelope lines from
// the start of the spool stream into mail and returns the offset where the
// message part begins, leaving the stream there. Sets the two flags, never
// clears them. Throws nothing of its own.
#pragma once

#include <cstdint>
#include <cstdio>

class Mail;

int64_t ReadEnvelope(FILE* stream, Mail& mail, bool& senderFound, bool& recipientFound);
