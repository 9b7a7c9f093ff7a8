// daemon/MessageLog.h: the per-message log line as one JSON object
// (--log-format json) for log shippers: entry, size of ".msg", each engine's
// upstream, result and milliseconds, verdict, note, total milliseconds, and
// the envelope's addresses only when the admin asked for them. Texts that
// are not UTF-8 are replaced, never passed on. Never throws for the entry's
// files: an envelope it cannot read is a cause string.
#pragma once

#include <string>
#include <vector>

// One engine's part in a check.
struct EngineRecord {
    std::string engine;
    std::string upstream; // empty: a lone engine
    std::string result;   // "clean", "found", "tempfail", "error"
    std::string detail;   // the engine's summary
    long long ms = 0;
};

struct MessageRecord {
    std::string entry;
    long long size = -1; // of ".msg"; -1 when it could not be opened
    std::vector<EngineRecord> engines;
    std::string answer; // "<flags> <note>"
    long long ms = 0;
    bool withAddresses = false;
    bool addressesRead = false; // an engine's envelope filled them in
    std::string sender;
    std::vector<std::string> recipients;
};

// The "from" and "to" lines of the entry's ".envelope" (at most 64 KiB,
// a regular file, no link followed) into record; empty on success, else
// the cause.
std::string ReadEnvelopeAddresses(const std::string& dir, MessageRecord& record);

// The record as one line of JSON, without a line end.
std::string MessageJson(const MessageRecord& record);
