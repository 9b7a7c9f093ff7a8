// daemon/ClamdEngine.h: the virus check by ClamAV's clamd. On a
// Unix socket clamd gets the message's descriptor (zFILDES, SCM_RIGHTS) and
// reads the file itself; over TCP the bytes go as zINSTREAM chunks. A find
// rejects with "infected: <signature>"; clamd's size-limit finds
// (Heuristics.Limits.Exceeded...) map to the administrator's choice; any
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
    void StreamMessage(int socket, int msg, std::size_t size, Deadline deadline);

    const EngineAddress address;
    const LimitsAction limits;
};
