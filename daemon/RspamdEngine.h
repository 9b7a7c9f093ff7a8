// daemon/RspamdEngine.h: the spam check by rspamd over its HTTP
// interface: "POST /checkv2" with the envelope as request headers (From, one
// Rcpt per recipient, Queue-Id = the entry's name) and the message streamed
// from its descriptor. rspamd's action decides: "reject" rejects with
// "spam: rspamd score S/T"; "soft reject" tempfails; "greylist" tempfails
// only when rspamd's greylist module deferred the message (its GREYLIST
// symbol with the option "greylisted"), else it tags; "add header" and
// "rewrite subject" tag (the headers rspamd asks for, else one X-Spam-Status
// line; the Subject is never rewritten, so a signature over it holds); "no
// action" passes. Anything else throws (the daemon's error).
#pragma once

#include "Engine.h"

class RspamdEngine final : public Engine
{
public:
    // maxSize: larger messages are not sent (they pass unchecked, as with spamd).
    RspamdEngine(EngineAddress address, std::size_t maxSize)
        : address(std::move(address)), maxSize(maxSize)
    {
    }
    const char* Name() const override { return "rspamd"; }
    bool UsesEnvelope() const override { return true; }
    EngineResult Check(int msg, const struct stat& status, const MessageEnvelope& envelope,
                       Deadline deadline) override;
    // "GET /ping": 200 with "pong".
    void Ping(Deadline deadline) override;

private:
    const EngineAddress address;
    const std::size_t maxSize;
};
