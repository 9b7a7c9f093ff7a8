// daemon/SpamdEngine.h: the spam check by SpamAssassin's spamd over
// the spamc protocol ("HEADERS SPAMC/1.5"). The message streams from its
// descriptor; of spamd's rewritten header block only the X-Spam-Status,
// X-Spam-Flag, X-Spam-Level and X-Spam-Checker-Version lines are kept, to be
// put on top of ".msg". A score at or above the reject score rejects with
// "spam: score S/T". Messages over maxSize are not sent (they pass
// unchecked, as spamc does).
#pragma once

#include "Engine.h"

struct SpamSettings {
    bool reject = false;    // false: spam is only tagged
    double rejectScore = 0; // with reject
    std::string rejectText; // rejectScore as the administrator wrote it
    std::size_t maxSize = 512 * 1024;
};

class SpamdEngine final : public Engine
{
public:
    SpamdEngine(EngineAddress address, SpamSettings settings)
        : address(std::move(address)), settings(std::move(settings))
    {
    }
    const char* Name() const override { return "spamd"; }
    EngineResult Check(int msg, const struct stat& status, const MessageEnvelope& /*envelope*/,
                       Deadline deadline) override;
    void Ping(Deadline deadline) override;

private:
    const EngineAddress address;
    const SpamSettings settings;
};
