// daemon/ClamdEngine.h: the virus check by ClamAV's clamd. On a
// Unix socket clamd gets the message's descriptor (zFILDES, SCM_RIGHTS) and
// reads the file itself; over TCP the bytes go as zINSTREAM chunks. A find
// rejects with "infected: <signature>"; clamd's limit answers (the finds
// Heuristics.Limits.Exceeded... and "INSTREAM size limit exceeded. ERROR")
// map to the administrator's choice and are answers, not failures; any other
// ERROR answer, a closed connection or an answer it cannot read throws.
#pragma once

#include "Engine.h"

enum class LimitsAction { Reject, Tempfail, Pass };

class ClamdEngine final : public Engine
{
public:
    ClamdEngine(EngineAddress address, LimitsAction limits)
        : address(std::move(address)), limits(limits)
    {
    }
    const char* Name() const override { return "clamd"; }
    EngineResult Check(int msg, const struct stat& status, const MessageEnvelope& /*envelope*/,
                       Deadline deadline) override;
    void Ping(Deadline deadline) override;

private:
    // clamd's answer without its "fd[N]: " or "stream: " label, read to its
    // terminating NUL or the end of the connection.
    std::string ReadAnswer(int socket, Deadline deadline);
    // result for a message past one of clamd's limits, by the limits rule.
    EngineResult LimitsResult(EngineResult result, const std::string& limit) const;
    void StreamMessage(int socket, int msg, std::size_t size, Deadline deadline);

    const EngineAddress address;
    const LimitsAction limits;
};
