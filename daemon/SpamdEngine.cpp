// daemon/SpamdEngine.cpp: one request per message, then spamd's
// answer read line by line to its end: the status line, the "Spam:" line of
// the answer's headers, then the message's new header block, of which only
// the X-Spam-* fields (with their folded continuation lines, except those of
// blanks alone) are kept. The
// block ends at its first empty line; what spamd sends after it (its
// rewrapping of spam under report_safe) is read and dropped.
#include "SpamdEngine.h"

#include <cmath>
#include <cstdlib>
#include <stdexcept>
#include <sys/socket.h>

namespace
{

// A longer line in the kept fields or in spamd's own headers is garbage;
// longer lines elsewhere in the header block are skipped.
constexpr std::size_t MaxLine = 64 * 1024;
const char* const KeptFields[] = {
    "X-Spam-Status:", "X-Spam-Flag:", "X-Spam-Level:", "X-Spam-Checker-Version:"};

bool IsKeptField(const std::string& line)
{
    for (const char* field : KeptFields)
        if (line.compare(0, std::char_traits<char>::length(field), field) == 0)
            return true;
    return false;
}

// A header line without control bytes (a tab folds a line and stays): a CR,
// NUL or ESC in a kept line would reach the spool file.
bool IsClean(const std::string& line)
{
    for (char c : line)
        if ((c >= 0 && c < 0x20 && c != '\t') || c == 0x7f)
            return false;
    return true;
}

// Hands spamd's answer to its caller one line at a time (line end removed).
class LineReader
{
public:
    LineReader(int socket, Deadline deadline) : socket(socket), deadline(deadline) {}

    // False at the end of the answer. A line over MaxLine comes back cut,
    // with overlong set.
    bool Next(std::string& line, bool& overlong)
    {
        overlong = false;
        for (;;) {
            std::size_t end = pending.find('\n');
            if (end != std::string::npos || pending.size() > MaxLine ||
                (ended && !pending.empty())) {
                overlong = end == std::string::npos && !ended;
                std::size_t take = end == std::string::npos ? pending.size() : end;
                line = pending.substr(0, take);
                pending.erase(0, end == std::string::npos ? take : end + 1);
                if (!line.empty() && line.back() == '\r')
                    line.pop_back();
                return true;
            }
            if (ended)
                return false;
            char block[16 * 1024];
            std::size_t count = ReceiveSome(socket, block, sizeof block, deadline);
            ended = count == 0;
            pending.append(block, count);
        }
    }

private:
    const int socket;
    const Deadline deadline;
    std::string pending;
    bool ended = false;
};

} // namespace

EngineResult SpamdEngine::Check(int msg, const struct stat& status,
                                const MessageEnvelope& /*envelope*/, Deadline deadline)
{
    EngineResult result;
    const std::size_t size = static_cast<std::size_t>(status.st_size);
    if (size > settings.maxSize) {
        result.summary = "spamd skipped (" + std::to_string(size) + " bytes)";
        return result;
    }
    Fd socket = ConnectWithDeadline(address, deadline);
    const std::string request =
        "HEADERS SPAMC/1.5\r\nContent-length: " + std::to_string(size) + "\r\n\r\n";
    if (SendAll(socket.Get(), request.data(), request.size(), deadline) &&
        SendFileContents(socket.Get(), msg, size, deadline))
        (void)::shutdown(socket.Get(), SHUT_WR); // only says "no more"; spamd counts bytes

    LineReader reader(socket.Get(), deadline);
    std::string line;
    bool overlong = false;
    if (!reader.Next(line, overlong))
        throw std::domain_error("spamd closed the connection without an answer");
    if (overlong || line.compare(0, 6, "SPAMD/") != 0 || line.find(" 0 EX_OK") == std::string::npos)
        throw std::domain_error("spamd answered '" + line.substr(0, 200) + "'");
    std::string score, threshold;
    bool isSpam = false; // spamd's own verdict, at its own threshold
    while (reader.Next(line, overlong) && !line.empty()) {
        if (overlong)
            throw std::logic_error("spamd answer line too long");
        // "Spam: True ; 1004.2 / 5.0"
        if (line.compare(0, 5, "Spam:") != 0)
            continue;
        std::size_t semicolon = line.find(';');
        std::size_t slash = line.find('/', semicolon == std::string::npos ? 0 : semicolon);
        if (semicolon == std::string::npos || slash == std::string::npos)
            throw std::logic_error("spamd answered '" + line + "'");
        auto trim = [](std::string text) {
            text.erase(0, text.find_first_not_of(' '));
            text.erase(text.find_last_not_of(' ') + 1);
            return text;
        };
        isSpam = trim(line.substr(5, semicolon - 5)) == "True";
        score = trim(line.substr(semicolon + 1, slash - semicolon - 1));
        threshold = trim(line.substr(slash + 1));
    }
    char* end = nullptr;
    double value = score.empty() ? 0 : std::strtod(score.c_str(), &end);
    if (score.empty() || end == nullptr || *end != '\0')
        throw std::logic_error("spamd gave no score");
    if (!std::isfinite(value))
        throw std::logic_error("spamd gave the score " + score);

    // A kept field goes in whole (its first line and its folded lines) or
    // not at all: a field with a control byte in any of its lines is dropped.
    bool keeping = false;
    bool inHeaders = true;
    std::string field;
    bool fieldClean = true;
    auto commit = [&] {
        if (fieldClean)
            result.headers += field;
        field.clear();
        fieldClean = true;
    };
    while (reader.Next(line, overlong)) {
        if (!inHeaders)
            continue; // the rest of the answer: read to its end, dropped
        if (line.empty()) {
            inHeaders = false;
            continue;
        }
        bool continuation = line[0] == ' ' || line[0] == '\t';
        if (!continuation)
            commit();
        keeping = continuation ? keeping : IsKeptField(line);
        if (keeping && overlong)
            throw std::logic_error("spamd header line too long");
        // A folded line of blanks alone is left out: some parsers take it
        // for the end of the header block.
        if (keeping && continuation && line.find_first_not_of(" \t") == std::string::npos)
            continue;
        if (keeping) {
            field += line + "\n";
            fieldClean = fieldClean && IsClean(line);
        }
    }
    commit();
    if (result.headers.empty())
        throw std::logic_error("spamd sent no X-Spam header");

    // One threshold in the log and the note: ours when we reject, else the
    // one at which spamd tags.
    const std::string scored = "score " + score + "/" + (settings.reject ? settings.rejectText : threshold);
    if (settings.reject && value >= settings.rejectScore) {
        result.finding = Finding::Reject;
        result.note = "spam: " + scored;
        result.headers.clear();
    } else if (isSpam) {
        result.note = "spam: score " + score + "/" + threshold + ", tagged";
    }
    result.summary = "spamd " + (result.note.empty() ? scored : result.note);
    return result;
}

void SpamdEngine::Ping(Deadline deadline)
{
    Fd socket = ConnectWithDeadline(address, deadline);
    const std::string request = "PING SPAMC/1.5\r\n\r\n";
    (void)SendAll(socket.Get(), request.data(), request.size(), deadline); // its answer tells
    LineReader reader(socket.Get(), deadline);
    std::string line;
    bool overlong = false;
    if (!reader.Next(line, overlong))
        throw std::domain_error("spamd closed the connection without an answer to PING");
    if (overlong || line.compare(0, 6, "SPAMD/") != 0 || line.find(" 0 PONG") == std::string::npos)
        throw std::domain_error("spamd answered '" + line.substr(0, 200) + "' to PING");
}
