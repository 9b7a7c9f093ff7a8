// daemon/Engine.h: what every checking engine offers the daemon:
// one call that checks a message given as a read-only descriptor of the
// entry's ".msg" (never its bytes) before a deadline, and says what it found.
// An engine throws (std::domain_error, std::logic_error) when it cannot tell:
// the daemon answers that as a daemon error, never as a pass.
#pragma once

#include <string>
#include <sys/stat.h>
#include <vector>

#include "EngineSocket.h"

enum class Finding { Clean, Reject, Tempfail };

struct EngineResult {
    Finding finding = Finding::Clean;
    std::string note;    // for a reject or tempfail: "infected: <name>", ...; for a
                         // pass that is more than clean: "spam: score S/T, tagged"
    std::string headers; // header lines to put on top of ".msg", each ending "\n"
    std::string summary; // the engine's result in the daemon's log line
    std::string upstream; // the pool's upstream that answered (empty: a lone engine)
};

// The entry's envelope as the filter saved it, for engines that send it on.
struct MessageEnvelope {
    std::string queueId;                 // the entry's name
    std::string sender;                  // "<a@b>", "<>" for the null sender
    std::vector<std::string> recipients; // "<c@d>" each
};

class Engine
{
public:
    virtual ~Engine() = default;
    // The engine's name in notes and the log ("clamd", "spamd").
    virtual const char* Name() const = 0;
    // Whether Check needs the envelope; when false it gets an empty one.
    virtual bool UsesEnvelope() const { return false; }
    // msg is open for reading, a regular file of status.st_size bytes; the
    // engine reads it from offset 0 and may move its offset.
    virtual EngineResult Check(int msg, const struct stat& status, const MessageEnvelope& envelope,
                               Deadline deadline) = 0;
    // Asks the engine whether it is there with its protocol's ping (for
    // --check); throws like Check when it does not answer as it should.
    virtual void Ping(Deadline deadline) = 0;
};
