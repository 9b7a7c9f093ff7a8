// daemon/RspamdEngine.cpp: one HTTP/1.1 exchange per message
// ("Connection: close"): the request head, the message's bytes from its
// descriptor, then the answer read through the socket helper into Beast's
// parser (head at most 64 KiB, body at most 1 MiB, bytes not yet taken by
// the parser at most 80 KiB: a chunk line that never ends is an error, not a
// growing buffer) and its JSON read with nlohmann-json, nested at most 64
// deep (rspamd's answers are 4 deep; the DOM's copies recurse). Header
// lines rspamd asks for are kept only for the X-Spam-*, X-Spamd-* and
// X-Rspamd-* fields, a field with a control or non-ASCII byte in its value
// is dropped whole, and a remove_headers request is not carried out: lines
// are only ever added on top, so every byte of the message (and any
// signature over it) stays.
#include "RspamdEngine.h"

#include <cmath>
#include <cstdio>
#include <stdexcept>

#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <nlohmann/json.hpp>

namespace http = boost::beast::http;
using Json = nlohmann::json;

namespace
{

constexpr std::uint64_t MaxBody = 1024 * 1024;
constexpr std::uint32_t MaxHead = 64 * 1024;
constexpr std::size_t MaxField = 8 * 1024;              // one added field with its folded lines
constexpr std::size_t MaxPending = MaxHead + 16 * 1024; // one line the parser waits to end
constexpr int MaxDepth = 64;
// The symbol and option with which rspamd's greylist module marks a message it deferred.
const char GreylistSymbol[] = "GREYLIST";
const char GreylistedOption[] = "greylisted";
const char* const KeptPrefixes[] = {"X-Spam-", "X-Spamd-", "X-Rspamd-"};

using Response = http::response<http::string_body>;

// Reads one HTTP answer to its end: Content-Length, chunks, or the close.
Response ReadResponse(int socket, Deadline deadline)
{
    http::response_parser<http::string_body> parser;
    parser.body_limit(MaxBody);
    parser.header_limit(MaxHead);
    std::string pending;
    char block[16 * 1024];
    boost::beast::error_code failure;
    while (!parser.is_done()) {
        const std::size_t count = ReceiveSome(socket, block, sizeof block, deadline);
        if (count == 0) {
            parser.put_eof(failure);
            if (failure)
                throw std::domain_error("rspamd answer ends early: " + failure.message());
            break;
        }
        pending.append(block, count);
        if (pending.size() > MaxPending)
            throw std::logic_error("rspamd answer line longer than " + std::to_string(MaxPending) +
                                   " bytes");
        // The parser takes what it can; a partial head waits for more bytes.
        while (!pending.empty() && !parser.is_done()) {
            const std::size_t used =
                parser.put(boost::asio::buffer(pending.data(), pending.size()), failure);
            if (failure == http::error::need_more) {
                failure = {};
                pending.erase(0, used);
                break;
            }
            if (failure)
                throw std::domain_error("rspamd answered no HTTP: " + failure.message());
            pending.erase(0, used);
            if (used == 0)
                break; // nothing taken: more bytes first
        }
    }
    return parser.release();
}

void Send(int socket, const std::string& text, Deadline deadline)
{
    if (!SendAll(socket, text.data(), text.size(), deadline))
        throw std::domain_error("rspamd closed the connection before the request was sent");
}

// A request header value from the envelope: one line, no control byte.
std::string HeaderValue(const std::string& text)
{
    for (char c : text)
        if ((c >= 0 && c < 0x20) || c == 0x7f)
            throw std::logic_error("envelope address with a control byte");
    return text;
}

double Number(const Json& answer, const char* name)
{
    const auto found = answer.find(name);
    if (found == answer.end() || !found->is_number())
        throw std::logic_error(std::string("rspamd answer without a numeric ") + name);
    const double value = found->get<double>();
    if (!std::isfinite(value))
        throw std::logic_error(std::string("rspamd gave a non-finite ") + name);
    return value;
}

std::string Decimal(double value)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.2f", value);
    return text;
}

bool IsKeptName(const std::string& name)
{
    if (name.empty() || name.size() > 64)
        return false;
    for (char c : name)
        if (!((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
              c == '-'))
            return false;
    for (const char* prefix : KeptPrefixes)
        if (name.size() > std::char_traits<char>::length(prefix) &&
            name.compare(0, std::char_traits<char>::length(prefix), prefix) == 0)
            return true;
    return false;
}

bool IsBlank(char c)
{
    return c == ' ' || c == '\t';
}

// "Name: value\n" with rspamd's folding kept (a line end followed by a blank
// or tab), each line ending "\n"; empty when the value has any other control
// byte, a byte outside ASCII, a line end not followed by a blank, or is too long.
// A folded line of blanks alone is left out: some parsers take it for the
// end of the header block.
std::string FieldLine(const std::string& name, const std::string& value)
{
    std::string line = name + ": ";
    std::size_t lineStart = 0; // where the folded line being built starts in line
    const auto endFoldedLine = [&] {
        if (lineStart > 0 && line.find_first_not_of(" \t", lineStart) == std::string::npos)
            line.erase(lineStart - 1); // with its line end
    };
    for (std::size_t at = 0; at < value.size(); ++at) {
        const char c = value[at];
        if (c == '\r' && at + 1 < value.size() && value[at + 1] == '\n')
            continue;
        if (c == '\n') {
            if (at + 1 >= value.size() || !IsBlank(value[at + 1]))
                return "";
            endFoldedLine();
            line += '\n';
            lineStart = line.size();
            continue;
        }
        if ((c < 0x20 && c != '\t') || c >= 0x7f || c < 0)
            return "";
        line += c;
    }
    endFoldedLine();
    return line.size() > MaxField ? "" : line + "\n";
}

// The lines of milter.add_headers: each name maps to a value, an object with
// "value", or a list of those.
std::string AddedHeaders(const Json& answer)
{
    const auto milter = answer.find("milter");
    if (milter == answer.end() || !milter->is_object())
        return "";
    const auto add = milter->find("add_headers");
    if (add == milter->end() || !add->is_object())
        return "";
    std::string lines;
    for (const auto& field : add->items()) {
        if (!IsKeptName(field.key()))
            continue;
        const auto addItem = [&](const Json& item) {
            const Json* value = &item;
            if (item.is_object()) {
                const auto inner = item.find("value");
                value = inner == item.end() ? nullptr : &*inner;
            }
            if (value != nullptr && value->is_string())
                lines += FieldLine(field.key(), value->get<std::string>());
        };
        const Json& given = field.value();
        if (given.is_array())
            for (const Json& item : given)
                addItem(item);
        else
            addItem(given);
    }
    return lines;
}

// The answer's JSON; throws std::logic_error when it is nested deeper than
// MaxDepth (before the deeper part is built).
Json ParseAnswer(const std::string& body)
{
    const Json::parser_callback_t bounded = [](int depth, Json::parse_event_t event, Json&) {
        if (depth >= MaxDepth && (event == Json::parse_event_t::object_start ||
                                  event == Json::parse_event_t::array_start))
            throw std::logic_error("rspamd answer nested deeper than " + std::to_string(MaxDepth));
        return true;
    };
    return Json::parse(body, bounded, false);
}

// Whether rspamd's greylist module deferred this message itself: its
// symbol carries the option "greylisted" (it does so only when it has a
// record of the sender and defers it).
bool GreylistedByRspamd(const Json& answer)
{
    const auto symbols = answer.find("symbols");
    if (symbols == answer.end() || !symbols->is_object())
        return false;
    const auto symbol = symbols->find(GreylistSymbol);
    if (symbol == symbols->end() || !symbol->is_object())
        return false;
    const auto options = symbol->find("options");
    if (options == symbol->end() || !options->is_array())
        return false;
    for (const Json& option : *options)
        if (option.is_string() && option.get<std::string>() == GreylistedOption)
            return true;
    return false;
}

} // namespace

EngineResult RspamdEngine::Check(int msg, const struct stat& status,
                                 const MessageEnvelope& envelope, Deadline deadline)
{
    EngineResult result;
    const std::size_t size = static_cast<std::size_t>(status.st_size);
    if (size > maxSize) {
        result.summary = "rspamd skipped (" + std::to_string(size) + " bytes)";
        return result;
    }
    std::string head = "POST /checkv2 HTTP/1.1\r\nHost: rspamd\r\nConnection: close\r\n"
                       "Content-Length: " +
                       std::to_string(size) + "\r\nQueue-Id: " + HeaderValue(envelope.queueId) +
                       "\r\nFrom: " + HeaderValue(envelope.sender) + "\r\n";
    for (const std::string& recipient : envelope.recipients)
        head += "Rcpt: " + HeaderValue(recipient) + "\r\n";
    head += "\r\n";
    Fd socket = ConnectWithDeadline(address, deadline);
    Send(socket.Get(), head, deadline);
    // A peer that closed early may still have sent its reason; the answer tells.
    (void)SendFileContents(socket.Get(), msg, size, deadline);
    const Response response = ReadResponse(socket.Get(), deadline);
    if (response.result() != http::status::ok)
        throw std::domain_error("rspamd answered HTTP " + std::to_string(response.result_int()));
    const Json answer = ParseAnswer(response.body());
    if (answer.is_discarded() || !answer.is_object())
        throw std::logic_error("rspamd answered no JSON object");
    const auto action = answer.find("action");
    if (action == answer.end() || !action->is_string())
        throw std::logic_error("rspamd answer without an action");
    const std::string scored = "rspamd score " + Decimal(Number(answer, "score")) + "/" +
                               Decimal(Number(answer, "required_score"));
    const std::string name = action->get<std::string>();
    if (name == "reject") {
        result.finding = Finding::Reject;
        result.note = "spam: " + scored;
    } else if (name == "soft reject" || (name == "greylist" && GreylistedByRspamd(answer))) {
        result.finding = Finding::Tempfail;
        result.note = "spam: " + scored + ", " + name;
    } else if (name == "add header" || name == "rewrite subject" || name == "greylist") {
        // A greylist action that no greylisting came with (the module off,
        // or it let the message through) only says the score is past the
        // greylist threshold: deferring it would defer every retry.
        result.note = "spam: " + scored + ", tagged";
        result.headers = AddedHeaders(answer);
        if (result.headers.empty())
            result.headers = "X-Spam-Status: Yes, score=" + Decimal(Number(answer, "score")) +
                             " required=" + Decimal(Number(answer, "required_score")) +
                             " (rspamd)\n";
    } else if (name == "no action") {
        result.headers = AddedHeaders(answer); // only when rspamd's configuration asks
    } else {
        throw std::logic_error("rspamd answered the action '" + name.substr(0, 64) + "'");
    }
    result.summary = result.note.empty() ? scored : result.note;
    return result;
}

void RspamdEngine::Ping(Deadline deadline)
{
    Fd socket = ConnectWithDeadline(address, deadline);
    Send(socket.Get(), "GET /ping HTTP/1.1\r\nHost: rspamd\r\nConnection: close\r\n\r\n", deadline);
    const Response response = ReadResponse(socket.Get(), deadline);
    std::string body = response.body();
    body.erase(body.find_last_not_of("\r\n ") + 1);
    if (response.result() != http::status::ok || body != "pong")
        throw std::domain_error("rspamd answered HTTP " + std::to_string(response.result_int()) +
                                " '" + body.substr(0, 64) + "' to /ping");
}
