// platform/receiver/RfUtils.cpp: line-end test and the one address
// normaliser behind MakeAddress, Mail::AddRushechkiToAddress and
// Mail::SetToField. The normaliser reads an address as a mail administrator
// writes it: display names, comments and group names go, the address between
// angle brackets wins, quoted local parts and domain literals stay as they
// are. It compares bytes with ASCII punctuation only, so any byte is safe.
#include "platform/receiver/RfUtils.h"

#include <cstring>

namespace
{

bool IsBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
}

std::string Trimmed(const std::string& text)
{
    std::size_t begin = 0;
    std::size_t end = text.size();
    while (begin < end && IsBlank(text[begin]))
        ++begin;
    while (end > begin && IsBlank(text[end - 1]))
        --end;
    return text.substr(begin, end - begin);
}

// Where a byte of address text stands.
enum class Place {
    Plain,   // may carry structure: < > , : ;
    Quoted,  // inside "..." or a domain literal [...], quotes and brackets included
    Comment, // inside (...), nested, parentheses included
};

// Follows quoted strings, domain literals and comments byte by byte, with
// backslash escapes inside them. An unclosed one runs to the end of the text.
class AddressLexer
{
public:
    Place Next(char c)
    {
        if (commentDepth > 0) {
            if (escaped)
                escaped = false;
            else if (c == '\\')
                escaped = true;
            else if (c == '(')
                ++commentDepth;
            else if (c == ')')
                --commentDepth;
            return Place::Comment;
        }
        if (inQuote || inLiteral) {
            if (escaped)
                escaped = false;
            else if (c == '\\')
                escaped = true;
            else if (inQuote && c == '"')
                inQuote = false;
            else if (inLiteral && c == ']')
                inLiteral = false;
            return Place::Quoted;
        }
        switch (c) {
        case '(':
            commentDepth = 1;
            return Place::Comment;
        case '"':
            inQuote = true;
            return Place::Quoted;
        case '[':
            inLiteral = true;
            return Place::Quoted;
        default:
            return Place::Plain;
        }
    }

private:
    bool inQuote = false;
    bool inLiteral = false;
    bool escaped = false;
    long commentDepth = 0;
};

// Splits at plain commas outside angle brackets.
std::vector<std::string> SplitList(const std::string& list)
{
    std::vector<std::string> parts;
    std::string part;
    AddressLexer lexer;
    bool inAngle = false;
    for (char c : list) {
        if (lexer.Next(c) == Place::Plain) {
            if (c == '<') {
                inAngle = true;
            } else if (c == '>') {
                inAngle = false;
            } else if (c == ',' && !inAngle) {
                parts.push_back(part);
                part.clear();
                continue;
            }
        }
        part += c;
    }
    parts.push_back(part);
    return parts;
}

// The bare address of one list part, or "" when it names none. The first
// plain '<' starts the address and the next plain '>' ends it (an unclosed
// one runs to the end); without one the whole part is the address. Comments
// are dropped, then a source route or group name up to the first plain ':',
// then a group's ';'.
std::string BareAddress(const std::string& part)
{
    std::size_t open = std::string::npos;
    {
        AddressLexer lexer;
        for (std::size_t i = 0; i < part.size(); ++i) {
            if (lexer.Next(part[i]) == Place::Plain && part[i] == '<') {
                open = i;
                break;
            }
        }
    }
    const bool angled = open != std::string::npos;

    std::string addressText;
    AddressLexer lexer;
    for (std::size_t i = angled ? open + 1 : 0; i < part.size(); ++i) {
        const Place place = lexer.Next(part[i]);
        if (angled && place == Place::Plain && part[i] == '>')
            break;
        if (place != Place::Comment)
            addressText += part[i];
    }

    AddressLexer colonLexer;
    for (std::size_t i = 0; i < addressText.size(); ++i) {
        if (colonLexer.Next(addressText[i]) == Place::Plain && addressText[i] == ':') {
            addressText.erase(0, i + 1);
            break;
        }
    }

    std::string address;
    AddressLexer semicolonLexer;
    for (char c : addressText) {
        if (semicolonLexer.Next(c) == Place::Plain && c == ';')
            continue;
        address += c;
    }
    return Trimmed(address);
}

} // namespace

void RfUtils::MakeAddress(std::string& text)
{
    std::vector<std::string> addresses = MakeAddressList(text);
    text = addresses.empty() ? std::string("<>") : addresses.front();
}

std::vector<std::string> RfUtils::MakeAddressList(const std::string& list)
{
    std::vector<std::string> addresses;
    for (const std::string& part : SplitList(list)) {
        std::string bare = BareAddress(part);
        if (!bare.empty())
            addresses.push_back("<" + bare + ">");
    }
    return addresses;
}

bool RfUtils::IsJustEol(const char* line)
{
    return line != nullptr && (std::strcmp(line, "\n") == 0 || std::strcmp(line, "\r\n") == 0);
}
