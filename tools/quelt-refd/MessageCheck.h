// tools/quelt-refd/MessageCheck.h: what the reference daemon does to one
// entry's ".msg": look for the anti-virus test string and add a header line.
// Both stream the file in blocks; a failure returns false with a reason.
#pragma once

#include <string>

// Sets found when the file at path contains the 68-byte anti-virus test
// string anywhere, also across block boundaries.
bool ContainsTestString(const std::string& path, bool& found, std::string& reason);

// Makes header (without line end) the first line of the file at path: writes
// a new file beside it and renames it over the old one, keeping its mode.
bool InsertHeaderLine(const std::string& path, const std::string& header, std::string& reason);
