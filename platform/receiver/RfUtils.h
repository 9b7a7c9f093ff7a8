// platform/receiver/RfUtils.h: small text helpers for envelope lines and
// addresses.
#pragma once

#include <string>

class RfUtils {
public:
    // Turns the rest of an envelope "from "/"to " line (line end included)
    // into the record's address form: the bare address between angle
    // brackets, "<>" for an empty one.
    static void MakeAddress(std::string& text);
    // True when the line holds nothing but its line end ("\n" or "\r\n").
    static bool IsJustEol(const char* line);
};
