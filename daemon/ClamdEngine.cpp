// daemon/ClamdEngine.cpp: clamd's "z" commands (NUL-terminated
// command and answer). zFILDES wants the command first and the descriptor in
// a message of its own; clamd then scans the file from offset 0.
#include "ClamdEngine.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <unistd.h>
#include <vector>

namespace
{

// clamd's answers are one short line; a longer one is garbage.
constexpr std::size_t MaxAnswer = 4096;
constexpr std::size_t ChunkSize = 64 * 1024;
const char LimitsPrefix[] = "Heuristics.Limits.Exceeded";
// clamd's answer when a stream passes its StreamMaxLength (then ". ERROR").
const char StreamLimit[] = "INSTREAM size limit exceeded";

bool EndsWith(const std::string& text, const std::string& tail)
{
    return text.size() >= tail.size() &&
           text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

} // namespace

std::string ClamdEngine::ReadAnswer(int socket, Deadline deadline)
{
    std::string answer;
    char block[512];
    while (answer.find('\0') == std::string::npos) {
        if (answer.size() > MaxAnswer)
            throw std::logic_error("clamd answer too long");
        std::size_t count = ReceiveSome(socket, block, sizeof block, deadline);
        if (count == 0)
            break;
        answer.append(block, count);
    }
    answer = answer.substr(0, answer.find('\0'));
    while (!answer.empty() && (answer.back() == '\n' || answer.back() == '\r'))
        answer.pop_back();
    if (answer.empty())
        throw std::domain_error("clamd closed the connection without an answer");
    std::size_t label = answer.find(": ");
    // "INSTREAM size limit exceeded. ERROR" and the like come unlabelled.
    return label == std::string::npos ? answer : answer.substr(label + 2);
}

void ClamdEngine::StreamMessage(int socket, int msg, std::size_t size, Deadline deadline)
{
    const char command[] = "zINSTREAM";
    if (!SendAll(socket, command, sizeof command, deadline))
        return;
    std::vector<char> chunk(4 + ChunkSize);
    off_t offset = 0;
    while (static_cast<std::size_t>(offset) < size) {
        const std::size_t count = ReadMessageAt(msg, chunk.data() + 4, ChunkSize, offset);
        if (count == 0)
            throw std::logic_error("the message shrank while it was sent");
        offset += static_cast<off_t>(count);
        uint32_t length = htonl(static_cast<uint32_t>(count));
        std::memcpy(chunk.data(), &length, 4);
        // clamd closes early past its StreamMaxLength; its answer says why.
        if (!SendAll(socket, chunk.data(), 4 + count, deadline))
            return;
    }
    const char end[4] = {0, 0, 0, 0};
    (void)SendAll(socket, end, sizeof end, deadline); // a closed peer has answered already
}

EngineResult ClamdEngine::Check(int msg, const struct stat& status,
                                const MessageEnvelope& /*envelope*/, Deadline deadline)
{
    Fd socket = ConnectWithDeadline(address, deadline);
    if (address.isUnix) {
        const char command[] = "zFILDES";
        if (SendAll(socket.Get(), command, sizeof command, deadline))
            SendDescriptor(socket.Get(), msg, deadline);
    } else {
        StreamMessage(socket.Get(), msg, static_cast<std::size_t>(status.st_size), deadline);
    }
    const std::string answer = ReadAnswer(socket.Get(), deadline);

    EngineResult result;
    result.summary = "clamd " + answer;
    if (answer == "OK")
        return result;
    // A limit is a property of the message, answered by the administrator's
    // rule; thrown, it would mark a sound clamd down.
    if (answer.compare(0, sizeof StreamLimit - 1, StreamLimit) == 0)
        return LimitsResult(result, StreamLimit);
    if (!EndsWith(answer, " FOUND"))
        throw std::domain_error("clamd answered '" + answer + "'");
    const std::string name = answer.substr(0, answer.size() - 6);
    if (name.compare(0, sizeof LimitsPrefix - 1, LimitsPrefix) == 0)
        return LimitsResult(result, name);
    result.finding = Finding::Reject;
    result.note = "infected: " + name;
    return result;
}

EngineResult ClamdEngine::LimitsResult(EngineResult result, const std::string& limit) const
{
    if (limits == LimitsAction::Pass)
        return result;
    result.finding = limits == LimitsAction::Reject ? Finding::Reject : Finding::Tempfail;
    result.note = "not checked: " + limit;
    return result;
}

void ClamdEngine::Ping(Deadline deadline)
{
    Fd socket = ConnectWithDeadline(address, deadline);
    const char command[] = "zPING";
    (void)SendAll(socket.Get(), command, sizeof command, deadline); // its answer tells
    const std::string answer = ReadAnswer(socket.Get(), deadline);
    if (answer != "PONG")
        throw std::domain_error("clamd answered '" + answer + "' to zPING");
}
