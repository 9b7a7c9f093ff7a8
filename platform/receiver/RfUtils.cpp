// platform/receiver/RfUtils.cpp: line-end test and the one address
// normaliser behind MakeAddress, Mail::AddRushechkiToAddress and
// Mail::SetToField. The normaliser reads an address as a mail administrator
// writes it: display names, comments and group names go, the address between
// angle brackets wins, quoted local parts and domain literals stay as they
// are, and every result names one address. It compares bytes with ASCII
// punctuation only, so any byte is safe.
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

    // True inside a quoted string, domain literal or comment.
    bool IsOpen() const { return inQuote || inLiteral || commentDepth > 0; }

private:
    bool inQuote = false;
    bool inLiteral = false;
    bool escaped = false;
    long commentDepth = 0;
};

// Splits at plain commas and semicolons outside angle brackets: people type
// either between addresses, and a group's closing ';' ends a part too.
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
            } else if ((c == ',' || c == ';') && !inAngle) {
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

// The part with each comment byte made a blank (a comment separates words
// as white space does). False when a quoted string, domain literal or
// comment never closes: where the address would end is then unknown, and a
// guess could merge or invent addresses, so such a part names none.
bool WithoutComments(const std::string& part, std::string& text)
{
    AddressLexer lexer;
    text.clear();
    for (char c : part)
        text += lexer.Next(c) == Place::Comment ? ' ' : c;
    return !lexer.IsOpen();
}

// Where each byte of text stands; text holds no comment.
std::vector<bool> PlainBytes(const std::string& text)
{
    std::vector<bool> plain(text.size());
    AddressLexer lexer;
    for (std::size_t i = 0; i < text.size(); ++i)
        plain[i] = lexer.Next(text[i]) == Place::Plain;
    return plain;
}

// The text between the first plain '<' and the next plain '>' (an unclosed
// one runs to the end); the whole text when it has no plain '<'.
std::string AngleText(const std::string& text)
{
    const std::vector<bool> plain = PlainBytes(text);
    std::size_t open = 0;
    while (open < text.size() && !(plain[open] && text[open] == '<'))
        ++open;
    if (open == text.size())
        return text;
    std::size_t close = open + 1;
    while (close < text.size() && !(plain[close] && text[close] == '>'))
        ++close;
    return text.substr(open + 1, close - open - 1);
}

// Drops a source route ("@a.example,@b.example:") and the blanks next to a
// plain '@', so that "jane @ x" is one word.
std::string WithoutRouteAndAtBlanks(const std::string& text)
{
    std::string rest = Trimmed(text);
    std::vector<bool> plain = PlainBytes(rest);
    if (!rest.empty() && rest[0] == '@') {
        for (std::size_t i = 0; i < rest.size(); ++i) {
            if (plain[i] && rest[i] == ':') {
                rest.erase(0, i + 1);
                plain.erase(plain.begin(), plain.begin() + static_cast<long>(i) + 1);
                break;
            }
        }
    }
    std::string joined;
    for (std::size_t i = 0; i < rest.size(); ++i) {
        if (plain[i] && IsBlank(rest[i])) {
            std::size_t next = i;
            while (next < rest.size() && plain[next] && IsBlank(rest[next]))
                ++next;
            const bool afterAt = !joined.empty() && joined.back() == '@' && plain[i - 1];
            const bool beforeAt = next < rest.size() && plain[next] && rest[next] == '@';
            if (!afterAt && !beforeAt)
                joined += ' ';
            i = next - 1;
            continue;
        }
        joined += rest[i];
    }
    return joined;
}

bool IsWordBreak(char c)
{
    return IsBlank(c) || c == ',' || c == ';' || c == ':' || c == '<' || c == '>';
}

// Adds the addresses of one list part in the record's address form. Words
// break at plain blanks and punctuation; every word with one plain '@' is an
// address, so nothing is glued to a neighbour, and a word with two, such as
// "bob@example.netcarol@example.net", names none. A part without an '@'
// is a local name or a group's name: what follows its last plain ':' is the
// address, one per piece between plain ',', ';', '<' or '>'.
void AddPartAddresses(const std::string& part, std::vector<std::string>& addresses)
{
    std::string text;
    if (!WithoutComments(part, text))
        return;
    text = WithoutRouteAndAtBlanks(AngleText(text));
    const std::vector<bool> plain = PlainBytes(text);

    struct Word {
        std::string text;
        int ats = 0;
    };
    std::vector<Word> words(1);
    bool anyAt = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (plain[i] && IsWordBreak(text[i])) {
            if (!words.back().text.empty())
                words.emplace_back();
            continue;
        }
        if (plain[i] && text[i] == '@') {
            anyAt = true;
            ++words.back().ats;
        }
        words.back().text += text[i];
    }
    if (anyAt) {
        for (const Word& word : words)
            if (word.ats == 1)
                addresses.push_back("<" + word.text + ">");
        return;
    }

    std::size_t start = 0;
    for (std::size_t i = 0; i < text.size(); ++i)
        if (plain[i] && text[i] == ':')
            start = i + 1;
    std::string piece;
    for (std::size_t i = start; i <= text.size(); ++i) {
        const char c = i < text.size() ? text[i] : ',';
        if (i == text.size() || (plain[i] && (c == ',' || c == ';' || c == '<' || c == '>'))) {
            piece = Trimmed(piece);
            if (!piece.empty())
                addresses.push_back("<" + piece + ">");
            piece.clear();
            continue;
        }
        piece += c;
    }
}

// At most this many To items are joined to close one quoted string, comment
// or angle bracket; it bounds the work on a hostile header to a multiple of
// its length. Real display names and comments hold a few commas.
constexpr std::size_t MaxJoinedItems = 16;

} // namespace

void RfUtils::MakeAddress(std::string& text)
{
    std::vector<std::string> addresses = MakeAddressList(text);
    text = addresses.empty() ? std::string("<>") : addresses.front();
}

std::vector<std::string> RfUtils::MakeAddressList(const std::string& list)
{
    std::vector<std::string> addresses;
    for (const std::string& part : SplitList(list))
        AddPartAddresses(part, addresses);
    return addresses;
}

std::vector<std::string> RfUtils::MakeAddressItems(const std::vector<std::string>& items)
{
    // An item that opens a quoted string, comment or angle bracket takes the
    // items after it up to the one that closes it, as in "Doe, John" <j@x>.
    // One that is never closed stands alone: it cannot swallow the others.
    std::vector<std::string> addresses;
    for (std::size_t first = 0; first < items.size();) {
        AddressLexer lexer;
        bool inAngle = false;
        std::size_t last = first;
        bool closed = false;
        for (std::size_t i = first; i < items.size() && i < first + MaxJoinedItems; ++i) {
            for (char c : items[i] + ',') {
                if (lexer.Next(c) == Place::Plain && (c == '<' || c == '>'))
                    inAngle = c == '<';
            }
            if (!lexer.IsOpen() && !inAngle) {
                last = i;
                closed = true;
                break;
            }
        }
        std::string group = items[first];
        for (std::size_t i = first + 1; closed && i <= last; ++i)
            group += ',' + items[i];
        for (const std::string& part : SplitList(group))
            AddPartAddresses(part, addresses);
        first = last + 1;
    }
    return addresses;
}

bool RfUtils::IsJustEol(const char* line)
{
    return line != nullptr && (std::strcmp(line, "\n") == 0 || std::strcmp(line, "\r\n") == 0);
}
