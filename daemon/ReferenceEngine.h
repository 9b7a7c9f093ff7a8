// daemon/ReferenceEngine.h: the engine of the daemon without real
// engines (tests, the demo): finds the 68-byte anti-virus test string
// anywhere in ".msg" and rejects with "infected: EICAR-Test-File".
#pragma once

#include "Engine.h"

class ReferenceEngine final : public Engine
{
public:
    const char* Name() const override { return "reference"; }
    EngineResult Check(int msg, const struct stat& status, const MessageEnvelope& /*envelope*/,
                       Deadline deadline) override;
    void Ping(Deadline /*deadline*/) override {} // it is part of the daemon
};
