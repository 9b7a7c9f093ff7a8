// tests/fuzz/address.cpp: libFuzzer target over the address normaliser as
// its three callers use it. The first byte picks the caller; the rest is
// shaped as that caller hands it over: RfUtils::MakeAddress gets the rest of
// an envelope line (no line feed but the last), Mail::AddRushechkiToAddress a
// trimmed From value and Mail::SetToField the comma-split, trimmed items of
// a To header (neither with a line feed). Traps unless every result is in
// the record's address form ("<", the address, ">", no line end inside) and
// names one address, or, for a sender or envelope recipient that names none,
// is its own text in that form; and traps on the null sender "<>" unless the
// text was empty or "<>": a malformed sender must not pass for a bounce.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/algorithm/string/trim.hpp>

#include "OneAddress.h"
#include "platform/receiver/Mail.h"
#include "platform/receiver/RfUtils.h"

namespace
{

[[noreturn]] void Trap(const char* what, const std::string& address)
{
    std::fprintf(stderr, "address: %s: '%s'\n", what, address.c_str());
    std::abort();
}

// One result of MakeAddress or AddRushechkiToAddress for text.
void CheckOne(std::string text, const std::string& address)
{
    boost::algorithm::trim(text);
    if (address == "<>") {
        if (!text.empty() && text != "<>")
            Trap("null sender for a text that is not empty", address);
        return;
    }
    const bool bracketed = text.size() >= 2 && text.front() == '<' && text.back() == '>';
    if (!NamesOneAddress(address) && address != (bracketed ? text : "<" + text + ">"))
        Trap("neither one address in address form nor the text kept", address);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    if (size == 0)
        return 0;
    // Text as a line reader delivers it: no NUL (the readers work on C
    // strings) and no line feed.
    std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    text.erase(std::remove_if(text.begin(), text.end(), [](char c) { return c == 0 || c == '\n'; }),
               text.end());
    if (data[0] % 3 == 0) {
        // The rest of a "from " or "to " line, line end included unless the
        // line was cut at the buffer's end.
        if (data[0] & 0x80)
            text += '\n';
        std::string address = text;
        RfUtils::MakeAddress(address);
        CheckOne(text, address);
    } else if (data[0] % 3 == 1) {
        boost::algorithm::trim(text);
        std::string address = text;
        Mail::AddRushechkiToAddress(address);
        CheckOne(text, address);
    } else {
        std::vector<std::string> items;
        boost::algorithm::split(items, text, boost::algorithm::is_any_of(","));
        for (std::string& item : items)
            boost::algorithm::trim(item);
        Mail mail;
        mail.SetToField(items);
        for (const std::string& address : mail.recipients)
            if (address == "<>" || !NamesOneAddress(address))
                Trap("not one address in address form", address);
    }
    return 0;
}
