// tests/fuzz/address.cpp: libFuzzer target over the address normaliser as
// its three callers use it. The first byte picks the caller; the rest is
// shaped as that caller hands it over: RfUtils::MakeAddress gets the rest of
// an envelope line (no line feed but the last), Mail::AddRushechkiToAddress a
// trimmed From value and Mail::SetToField the comma-split, trimmed items of
// a To header (neither with a line feed). Traps unless every result is in
// the record's address form ("<", the address, ">", no line end inside) and
// names one address.
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

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    if (size == 0)
        return 0;
    // Text as a line reader delivers it: no NUL (the readers work on C
    // strings) and no line feed.
    std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    text.erase(std::remove_if(text.begin(), text.end(), [](char c) { return c == 0 || c == '\n'; }),
               text.end());
    Mail mail;
    if (data[0] % 3 == 0) {
        // The rest of a "from " or "to " line, line end included unless the
        // line was cut at the buffer's end.
        if (data[0] & 0x80)
            text += '\n';
        RfUtils::MakeAddress(text);
        mail.recipients = {text};
    } else if (data[0] % 3 == 1) {
        boost::algorithm::trim(text);
        Mail::AddRushechkiToAddress(text);
        mail.recipients = {text};
    } else {
        std::vector<std::string> items;
        boost::algorithm::split(items, text, boost::algorithm::is_any_of(","));
        for (std::string& item : items)
            boost::algorithm::trim(item);
        mail.SetToField(items);
    }
    for (const std::string& address : mail.recipients)
        if (!NamesOneAddress(address)) {
            std::fprintf(stderr, "address: not one address in address form: '%s'\n",
                         address.c_str());
            std::abort();
        }
    return 0;
}
