// platform/receiver/RfUtils.cpp: line-end test and the one address
// normaliser behind MakeAddress, Mail::AddRushechkiToAddress and
// Mail::SetToField. The normaliser reads an address as a mail administrator
// writes it: display names, comments and group names go, the address between
// angle brackets wins, quoted local parts and domain literals stay as they
// are, and every result names one address. A quote, comment or bracket that
// never closes is an ordinary byte of its own item: it hides nothing and takes
// no other item with it. It compares bytes with ASCII punctuation only, so any
// byte is safe.
#include "platform/receiver/RfUtils.h"

#include <algorithm>
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
    bool InQuote() const { return inQuote; }
    bool InLiteral() const { return inLiteral; }

private:
    bool inQuote = false;
    bool inLiteral = false;
    bool escaped = false;
    long commentDepth = 0;
};

// Where each byte of text stands. An opener that never closes is a plain byte
// and the reading goes on right after it, so the stray quote of "x\"y@x"
// hides nothing. Inside a span a byte is escaped when an odd run of
// backslashes stands right before it; that does not depend on where the span
// began, so every opener's closer is found from arrays built in one pass
// each, and the reading stays linear on any text.
std::vector<Place> Places(const std::string& text)
{
    const std::size_t size = text.size();
    std::vector<bool> escaped(size, false);
    for (std::size_t i = 1; i < size; ++i)
        escaped[i] = text[i - 1] == '\\' && !escaped[i - 1];

    // The next unescaped '"' and ']' at or after each position.
    std::vector<std::size_t> nextQuote(size + 1, std::string::npos);
    std::vector<std::size_t> nextBracket(size + 1, std::string::npos);
    for (std::size_t i = size; i-- > 0;) {
        nextQuote[i] = text[i] == '"' && !escaped[i] ? i : nextQuote[i + 1];
        nextBracket[i] = text[i] == ']' && !escaped[i] ? i : nextBracket[i + 1];
    }
    // Comment depth as a running sum over unescaped parentheses; a comment
    // opened at i closes at the first later byte where the sum drops below
    // its value at i.
    std::vector<long> depth(size);
    long sum = 0;
    for (std::size_t i = 0; i < size; ++i) {
        if (!escaped[i])
            sum += text[i] == '(' ? 1 : text[i] == ')' ? -1 : 0;
        depth[i] = sum;
    }
    std::vector<std::size_t> commentEnd(size, std::string::npos);
    std::vector<std::size_t> pending;
    for (std::size_t i = 0; i < size; ++i) {
        while (!pending.empty() && depth[i] < depth[pending.back()]) {
            commentEnd[pending.back()] = i;
            pending.pop_back();
        }
        pending.push_back(i);
    }

    std::vector<Place> places(size, Place::Plain);
    for (std::size_t i = 0; i < size;) {
        std::size_t close = std::string::npos;
        if (text[i] == '"')
            close = nextQuote[i + 1];
        else if (text[i] == '[')
            close = nextBracket[i + 1];
        else if (text[i] == '(')
            close = commentEnd[i];
        if (close == std::string::npos) {
            ++i;
            continue;
        }
        for (std::size_t j = i; j <= close; ++j)
            places[j] = text[i] == '(' ? Place::Comment : Place::Quoted;
        i = close + 1;
    }
    return places;
}

// Splits at plain commas and semicolons outside angle brackets: people type
// either between addresses, and a group's closing ';' ends a part too.
std::vector<std::string> SplitList(const std::string& list)
{
    std::vector<std::string> parts;
    std::string part;
    const std::vector<Place> places = Places(list);
    bool inAngle = false;
    for (std::size_t i = 0; i < list.size(); ++i) {
        const char c = list[i];
        if (places[i] == Place::Plain) {
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
// as white space does).
std::string WithoutComments(const std::string& part)
{
    const std::vector<Place> places = Places(part);
    std::string text = part;
    for (std::size_t i = 0; i < text.size(); ++i)
        if (places[i] == Place::Comment)
            text[i] = ' ';
    return text;
}

// Where each byte of text stands; text holds no comment.
std::vector<bool> PlainBytes(const std::string& text)
{
    const std::vector<Place> places = Places(text);
    std::vector<bool> plain(text.size());
    for (std::size_t i = 0; i < text.size(); ++i)
        plain[i] = places[i] == Place::Plain;
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
    const std::string text = WithoutRouteAndAtBlanks(AngleText(WithoutComments(part)));
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

// At most this many items are joined to close one quoted string, comment or
// angle bracket; it bounds the work on a hostile header to a multiple of its
// length. Real display names, comments and source routes hold a few commas.
constexpr std::size_t MaxJoinedItems = 16;

bool NamesAnAddress(char c)
{
    return c == '@' || c == '<' || c == '>';
}

// How many items, from items[first] on, make one address: more than one only
// where items[first] opens a quoted string, comment or angle bracket that a
// later item closes, as in "Doe, John" <j@x> or <@a.example,@b.example:j@x>.
// A quoted string or comment may hold separators but no address of its own:
// one whose text holds '@', '<' or '>', or whose closing quote starts an item
// (where it opens the next display name), is a stray that stays in its item.
// An angle bracket closes at the next '>', unless a '<' comes first. A
// domain literal never holds a separator.
std::size_t JoinedItems(const std::vector<std::string>& items, std::size_t first)
{
    AddressLexer lexer;
    bool inAngle = false;
    bool spanOpen = false;         // the quoted string or comment left open by items[first]
    bool spanHoldsAddress = false; // the last one items[first] opened holds '@', '<' or '>'
    for (std::size_t i = first; i < items.size() && i < first + MaxJoinedItems; ++i) {
        const std::string& item = items[i];
        for (std::size_t j = 0; j < item.size(); ++j) {
            const char c = item[j];
            const bool wasOpen = lexer.IsOpen();
            const bool wasQuote = lexer.InQuote();
            const Place place = lexer.Next(c);
            if (i == first && !wasOpen && lexer.IsOpen())
                spanHoldsAddress = false;
            else if (i == first && wasOpen && lexer.IsOpen() && NamesAnAddress(c))
                spanHoldsAddress = true;
            if (spanOpen && !lexer.IsOpen()) {
                if (j == 0 && wasQuote)
                    return 1;
                spanOpen = false;
            } else if (spanOpen && NamesAnAddress(c)) {
                return 1;
            }
            if (place == Place::Plain && c == '<') {
                if (inAngle && i > first)
                    return 1;
                inAngle = true;
            } else if (place == Place::Plain && c == '>') {
                inAngle = false;
            }
        }
        if (!lexer.IsOpen() && !inAngle)
            return i - first + 1;
        if (i == first) {
            spanOpen = lexer.IsOpen();
            if (lexer.InLiteral() || (spanOpen && spanHoldsAddress))
                return 1;
        }
        (void)lexer.Next(','); // the separator, which the joined text keeps
    }
    return 1;
}

// The addresses of items that were cut at every separator, in order.
std::vector<std::string> ItemAddresses(const std::vector<std::string>& items,
                                       const std::string& separators)
{
    std::vector<std::string> addresses;
    for (std::size_t first = 0; first < items.size();) {
        const std::size_t count = JoinedItems(items, first);
        std::string group = items[first];
        for (std::size_t i = first + 1; i < first + count; ++i)
            group += separators[i - 1] + items[i];
        for (const std::string& part : SplitList(group))
            AddPartAddresses(part, addresses);
        first += count;
    }
    return addresses;
}

} // namespace

void RfUtils::MakeAddress(std::string& text)
{
    std::vector<std::string> addresses = MakeAddressList(text);
    if (!addresses.empty()) {
        text = addresses.front();
        return;
    }
    // Names no address the normaliser can read: the text itself, so that a
    // malformed sender never passes for the null sender of a bounce. Text
    // that would read as more than one address (a separator, a bracket, a
    // second '@', a quote or backslash of its own) goes in as one quoted
    // string, so that the record still holds one address.
    const std::string kept = Trimmed(text);
    const bool bracketed = kept.size() >= 2 && kept.front() == '<' && kept.back() == '>';
    const std::string inner = bracketed ? kept.substr(1, kept.size() - 2) : kept;
    if (inner.empty()) {
        text = "<>";
        return;
    }
    const bool plain = inner.find_first_of(",;<>\"\\") == std::string::npos &&
                       std::count(inner.begin(), inner.end(), '@') <= 1;
    std::string quoted = "\"";
    for (char c : inner) {
        if (c == '"' || c == '\\')
            quoted += '\\';
        quoted += c;
    }
    text = "<" + (plain ? inner : quoted + "\"") + ">";
}

std::vector<std::string> RfUtils::MakeAddressList(const std::string& list)
{
    std::vector<std::string> items(1);
    std::string separators;
    for (char c : list) {
        if (c == ',' || c == ';') {
            items.emplace_back();
            separators += c;
        } else {
            items.back() += c;
        }
    }
    return ItemAddresses(items, separators);
}

std::vector<std::string> RfUtils::MakeAddressItems(const std::vector<std::string>& items)
{
    const std::string separators(items.empty() ? 0 : items.size() - 1, ',');
    return ItemAddresses(items, separators);
}

bool RfUtils::IsJustEol(const char* line)
{
    return line != nullptr && (std::strcmp(line, "\n") == 0 || std::strcmp(line, "\r\n") == 0);
}
