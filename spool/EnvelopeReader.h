// spool/EnvelopeReader.h: ReadEnvelope reads the ZMailer envelope lines from
// the start of the spool stream into mail and returns the offset where the
// message part begins, leaving the stream there. Sets the two flags, never
// clears them. A read error ends the envelope like the end of the file; the
// only throw is std::domain_error when the stream position cannot be taken.
#pragma once

#include <cstdint>
#include <cstdio>

class Mail;

int64_t ReadEnvelope(FILE* stream, Mail& mail, bool& senderFound, bool& recipientFound);
