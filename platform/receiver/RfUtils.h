// platform/receiver/RfUtils.h: small text helpers for envelope lines and
// addresses. The address helpers share one normaliser; they never throw and
// take any bytes.
#pragma once

#include <string>
#include <vector>

class RfUtils
{
public:
    // Turns the rest of an envelope "from "/"to " line (line end included)
    // into the record's address form: the bare address between angle
    // brackets, "<>" for an empty one. Text in which no address can be read
    // keeps its own bytes between angle brackets (a malformed sender is not
    // the null sender of a bounce).
    static void MakeAddress(std::string& text);
    // Splits an address list at the commas and semicolons that stand outside
    // quoted strings, comments, domain literals and angle brackets, and
    // returns the addresses each part names in the record's address form, in
    // order, one address per result. Parts that name no address (empty, "<>",
    // a group's "name:;") are left out. A quote, comment or bracket never
    // closed is an ordinary byte of its own part.
    static std::vector<std::string> MakeAddressList(const std::string& list);
    // The same for a list already cut at every comma: items are joined again
    // only where a display name or comment without an address of its own, or
    // an angle bracket (a source route), that one opens is closed by a later
    // one (within 16 items).
    static std::vector<std::string> MakeAddressItems(const std::vector<std::string>& items);
    // True when the line holds nothing but its line end ("\n" or "\r\n").
    static bool IsJustEol(const char* line);
};
