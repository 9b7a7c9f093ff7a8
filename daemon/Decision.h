// daemon/Decision.h: the record of what the daemon answered for
// an entry the filter keeps, ".decision" in the entry: "Key: value" lines (Flags, Note,
// Engines, Time as epoch seconds, Date in ISO 8601 UTC), printable ASCII
// only. The admin's quarantine tool reads it; nothing in the mail path does.
// Reports failure as a cause string; never throws.
#pragma once

#include <ctime>
#include <string>

// The record's bytes for answer ("<flags> <note>"), the engines' summary
// and the time of the answer.
std::string DecisionText(const std::string& answer, const std::string& summary, time_t when);

// Writes text as ".decision" into the entry directory dir, replacing a
// leftover; never follows a link. Empty on success, else the cause.
std::string WriteDecision(const std::string& dir, const std::string& text);
