// daemon/MessageLog.cpp: nlohmann-json composes the object; the envelope
// is read through the entry's directory descriptor like ".msg".
#include "MessageLog.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "Metrics.h"
#include "shared/fd/Fd.h"
#include "shared/fd/SmallFile.h"

namespace
{

const char* const EnvelopeName = ".envelope";
constexpr std::size_t MaxEnvelope = 64 * 1024;

std::string Failed(const std::string& what, const std::string& path)
{
    return what + " " + path + " error:" + std::strerror(errno);
}

} // namespace

std::string ReadEnvelopeAddresses(const std::string& dir, MessageRecord& record)
{
    Fd dirFd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!dirFd.IsValid())
        return Failed("open", dir);
    std::string text;
    const std::string fault = ReadSmallFileAt(dirFd.Get(), dir, EnvelopeName, MaxEnvelope, text);
    if (!fault.empty())
        return fault;
    for (std::size_t at = 0; at < text.size();) {
        std::size_t end = text.find('\n', at);
        end = end == std::string::npos ? text.size() : end;
        const std::string line = text.substr(at, end - at);
        if (line.compare(0, 5, "from ") == 0)
            record.sender = line.substr(5);
        else if (line.compare(0, 3, "to ") == 0)
            record.recipients.push_back(line.substr(3));
        at = end + 1;
    }
    return "";
}

std::string MessageJson(const MessageRecord& record)
{
    nlohmann::json engines = nlohmann::json::array();
    for (const EngineRecord& one : record.engines)
        engines.push_back({{"engine", one.engine},
                           {"upstream", one.upstream},
                           {"result", one.result},
                           {"detail", one.detail},
                           {"ms", one.ms}});
    const std::size_t space = record.answer.find(' ');
    nlohmann::json line = {
        {"entry", record.entry},
        {"size", record.size},
        {"engines", engines},
        {"flags", std::strtoul(record.answer.c_str(), nullptr, 10)},
        {"verdict", VerdictName(VerdictOfAnswer(record.answer))},
        {"note", space == std::string::npos ? "" : record.answer.substr(space + 1)},
        {"ms", record.ms}};
    if (record.withAddresses) {
        line["from"] = record.sender;
        line["to"] = record.recipients;
    }
    return line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}
