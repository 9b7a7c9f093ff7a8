// tests/fuzz/OneAddress.h: the fuzz targets' reading of one address in the
// record's address form. Kept apart from the normaliser's own code so that a
// fault there is not repeated here.
#pragma once

#include <string>
#include <vector>

// True when address is "<", text, ">" without a line feed, and the text
// names at most one address: outside closed quoted strings and domain
// literals it holds no ',', ';', '<' or '>' and at most one '@'. A quote or
// literal that never closes shelters nothing: it is an ordinary byte, and
// the reading goes on right after it.
inline bool NamesOneAddress(const std::string& address)
{
    if (address.size() < 2 || address.front() != '<' || address.back() != '>' ||
        address.find('\n') != std::string::npos)
        return false;
    const std::string text = address.substr(1, address.size() - 2);
    std::vector<bool> sheltered(text.size(), false);
    char closer = 0;
    std::size_t opened = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (closer == 0) {
            if (text[i] == '"' || text[i] == '[') {
                closer = text[i] == '"' ? '"' : ']';
                opened = i;
            }
        } else if (text[i] == '\\') {
            ++i;
        } else if (text[i] == closer) {
            for (std::size_t j = opened; j <= i; ++j)
                sheltered[j] = true;
            closer = 0;
        }
        if (closer != 0 && i + 1 >= text.size()) {
            // Never closed: the opener was an ordinary byte; read on after it.
            closer = 0;
            i = opened;
        }
    }
    int ats = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (sheltered[i])
            continue;
        const char c = text[i];
        if (c == ',' || c == ';' || c == '<' || c == '>')
            return false;
        ats += c == '@' ? 1 : 0;
    }
    return ats <= 1;
}
