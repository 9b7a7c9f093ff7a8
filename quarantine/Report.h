// quarantine/Report.h: what list and show print. Values the account could
// have written (addresses, notes, headers) have every byte outside
// printable ASCII replaced by '?', so nothing reaches the admin's terminal
// as a control sequence.
#pragma once

#include <ctime>
#include <string>
#include <vector>

struct KeptEntry;

// text with every byte outside printable ASCII (and tab, and line ends
// when keepLineEnds is set) replaced by '?'.
std::string Printable(std::string text, bool keepLineEnds = false);

// The verdict word for the daemon's flags ("reject", "tempfail", ...).
std::string VerdictWord(const std::string& flags);

// One line per entry, newest first: name, age, size, verdict, sender,
// recipients, note; faults (entries that could not be read) after them.
std::string ListText(const std::vector<const KeptEntry*>& entries,
                     const std::vector<std::string>& faults, time_t now);
// The same as one JSON object {"entries": [...], "faults": [...]}.
std::string ListJson(const std::vector<const KeptEntry*>& entries,
                     const std::vector<std::string>& faults, time_t now);

// The envelope, the decision and the top headers of one entry.
std::string ShowText(const KeptEntry& entry, const std::string& headers);
