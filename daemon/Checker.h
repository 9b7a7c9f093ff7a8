// daemon/Checker.h: one message from request to answer: opens the
// entry, runs the engines in order (virus, then spam; a reject or tempfail
// ends the run), writes the headers they add into ".msg" and composes the
// answer line. Engine trouble of any kind becomes a daemon error (32) with
// its cause in the note and the log; never a pass. Logs one line per
// message: entry, each engine's result, verdict, time taken.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Engine.h"
#include "MessageLog.h"
#include "Metrics.h"

struct CheckSettings {
    std::string addHeader; // empty: none; else one line added to a clean message
    bool fixedVerdict = false;
    uint32_t verdict = 0;
    std::string note;              // empty: the check's own note
    int engineTimeoutSeconds = 20; // below the filter's default 30 s
    Metrics* metrics = nullptr;    // null: no metrics
    bool logJson = false;          // the per-message line as JSON (MessageLog.h)
    bool logAddresses = false;     // JSON lines name the envelope's addresses
};

class Checker
{
public:
    Checker(CheckSettings settings, std::vector<std::unique_ptr<Engine>> engines)
        : settings(std::move(settings)), engines(std::move(engines))
    {
    }
    // The answer for the entry directory dir, without its line end. Safe
    // to call from several threads at once.
    std::string Check(const std::string& dir) const;

private:
    // engineName: the engine at work when this throws, empty before and
    // after the engines.
    // record gets the message's size and each engine's part.
    std::string RunEngines(const std::string& dir, std::string& summary, std::string& engineName,
                           MessageRecord& record) const;

    const CheckSettings settings;
    const std::vector<std::unique_ptr<Engine>> engines;
};
