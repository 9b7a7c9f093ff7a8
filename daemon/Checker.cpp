// daemon/Checker.cpp: the verdict flags of the conversation: 1
// pass, 2 reject, 4 tempfail, 32 daemon error, 0x200 headers changed in
// ".msg" (shared/conversation/Conversation.h). Engines share no state between checks, so one
// Checker serves every worker thread.
#include "Checker.h"

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <stdexcept>

#include "DaemonLog.h"
#include "Decision.h"
#include "Entry.h"
#include "shared/conversation/Conversation.h"

namespace
{

const uint32_t Pass = VerdictPass;
const uint32_t Reject = VerdictReject;
const uint32_t Tempfail = VerdictTempfail;
const uint32_t DaemonError = VerdictDaemonError;
const uint32_t HeadersChanged = VerdictHeadersChanged;

// Engines' words (a clamd signature name, a spamd status line) reach the
// filter's reply line and the log: anything but printable ASCII becomes '?'.
std::string Printable(std::string text)
{
    for (char& c : text)
        if (c < 0x20 || c > 0x7e)
            c = '?';
    return text;
}

} // namespace

std::string Checker::RunEngines(const std::string& dir, std::string& summary,
                                std::string& engineName, MessageRecord& record) const
{
    Entry entry(dir);
    record.size = static_cast<long long>(entry.MsgStatus().st_size);
    const Deadline deadline = Clock::now() + std::chrono::seconds(settings.engineTimeoutSeconds);
    std::string headers;
    std::string passNote = "clean";
    MessageEnvelope envelope;
    for (const auto& engine : engines) {
        engineName = engine->Name();
        const auto started = Clock::now();
        // Filled in as an error first: a throw leaves it so.
        record.engines.push_back({engineName, "", "error", "", 0});
        if (engine->UsesEnvelope() && envelope.queueId.empty()) {
            envelope = entry.ReadEnvelope();
            if (settings.logAddresses) { // the log line need not read it again
                record.sender = envelope.sender;
                record.recipients = envelope.recipients;
                record.addressesRead = true;
            }
        }
        EngineResult result = engine->Check(entry.Msg(), entry.MsgStatus(), envelope, deadline);
        engineName.clear();
        EngineRecord& part = record.engines.back();
        part.upstream = result.upstream;
        part.result = result.finding == Finding::Clean    ? "clean"
                      : result.finding == Finding::Reject ? "found"
                                                          : "tempfail";
        part.detail = Printable(result.summary);
        part.ms =
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - started).count();
        summary += result.summary + ", ";
        if (result.finding == Finding::Reject)
            return std::to_string(Reject) + " " + result.note;
        if (result.finding == Finding::Tempfail)
            return std::to_string(Tempfail) + " " + result.note;
        headers += result.headers;
        passNote = result.note.empty() ? passNote : result.note;
    }
    if (!settings.addHeader.empty())
        headers += settings.addHeader + "\n";
    if (headers.empty())
        return std::to_string(Pass) + " " + passNote;
    entry.PrependHeaders(headers);
    return std::to_string(Pass | HeadersChanged) + " " + passNote;
}

std::string Checker::Check(const std::string& dir) const
{
    const auto started = Clock::now();
    if (settings.metrics != nullptr)
        settings.metrics->CheckStarted();
    std::string answer;
    std::string summary;
    std::string engineName;
    MessageRecord record;
    int priority = LOG_INFO;
    if (settings.fixedVerdict) {
        answer = std::to_string(settings.verdict);
        if (!settings.note.empty())
            answer += " " + settings.note;
    } else {
        // The one place where a check's failure is caught: it becomes the
        // daemon-error answer, so the filter applies its error action.
        try {
            answer = RunEngines(dir, summary, engineName, record);
        } catch (const std::exception& failure) {
            answer = std::to_string(DaemonError) + " " +
                     (engineName.empty() ? "" : engineName + ": ") + failure.what();
            priority = LOG_ERR;
        }
        if (!settings.note.empty())
            answer = answer.substr(0, answer.find(' ')) + " " + settings.note;
    }
    const auto elapsed = Clock::now() - started;
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count();
    answer = Printable(answer);
    if (settings.metrics != nullptr)
        settings.metrics->CheckEnded(VerdictOfAnswer(answer), elapsed);
    // The admin's record of an answer whose entry the filter keeps; its
    // failure changes nothing sent. An entry the filter removes gets none: a
    // new inode per clean message was most of the daemon's own cost.
    if (FilterKeepsEntry(static_cast<VerdictFlags>(std::strtoul(answer.c_str(), nullptr, 10)))) {
        const std::string failure =
            WriteDecision(dir, DecisionText(answer, summary, std::time(nullptr)));
        if (!failure.empty())
            Say(LOG_WARNING, Printable(failure));
    }
    if (!settings.logJson) {
        Say(priority, Printable(dir + ": " + summary) + "verdict " + answer + ", " +
                          std::to_string(took) + " ms");
        return answer;
    }
    record.entry = Printable(dir);
    record.answer = answer;
    record.ms = took;
    record.withAddresses = settings.logAddresses;
    const std::string unread =
        settings.logAddresses && !record.addressesRead ? ReadEnvelopeAddresses(dir, record) : "";
    if (!unread.empty())
        Say(LOG_WARNING, Printable(unread));
    Say(priority, MessageJson(record));
    return answer;
}
