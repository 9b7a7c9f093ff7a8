// adapter/Supervisor.cpp: the relay between smtpserver and the filter.
#include "adapter/Supervisor.h"

#include "adapter/LeftEntries.h"
#include "frame/Protocol.h"
#include "platform/ipc/Connection.h"

namespace
{

using Clock = std::chrono::steady_clock;

// The longest job line the filter takes whole; smtpserver's are paths.
const std::size_t MaxJobLine = 4111;
const char Hungry[] = "#hungry";

} // namespace

Supervisor::Supervisor(SupervisorSettings settings, AdapterLog& log)
    : settings(std::move(settings)), log(log), jobs(MaxJobLine)
{
}

Supervisor::~Supervisor() = default;

std::string Supervisor::FailureReply() const
{
    std::string line = ReplyLine(settings.errorAction);
    line.insert(line.size() - 1, " Internal error");
    return line;
}

void Supervisor::Run()
{
    for (;;) {
        WriteHungry(settings.hungry ? 1 : 0);
        std::string line;
        bool overlong = false;
        if (!NextJob(line, overlong))
            break;
        std::string reply;
        if (overlong) {
            log.Error("job line longer than " + std::to_string(MaxJobLine) + " bytes");
            reply = FailureReply();
        } else {
            reply = Answer(line);
        }
        // As with the filter's own replies, a reply smtpserver no longer
        // takes is lost; the next "#hungry" fails and ends the run.
        (void)Connection::Write(1, reply.data(), reply.size(), nullptr, nullptr);
    }
    Finish();
}

bool Supervisor::NextJob(std::string& line, bool& overlong)
{
    for (;;) {
        switch (jobs.Next(line)) {
        case LineBuffer::Take::Line:
            return true;
        case LineBuffer::Take::Overlong:
            overlong = true;
            return true;
        case LineBuffer::Take::End:
            return false;
        case LineBuffer::Take::None:
            break;
        }
        // Between jobs the filter must say nothing; output or an end from it
        // means it is broken or gone, and it is replaced for the next job.
        std::string said;
        if (filter && filter->Next(said, Deadline::max(), 0) != FilterChild::Event::Watched)
            EndFilter("wrote '" + said + "' between jobs", true);
        else
            jobs.Fill(0);
    }
}

bool Supervisor::StartFilter(Deadline deadline)
{
    if (Clock::now() < nextStart)
        return false;
    if (reread)
        reread(settings);
    if (settings.filterCommand.empty())
        return false;
    starting = true;
    heldStderr.clear();
    filter = std::make_unique<FilterChild>(settings.filterCommand, settings.filterEnvironment, [this](const std::string& line) {
        if (!starting)
            log.Error(line);
        else if (heldStderr.size() < 4096)
            heldStderr += (heldStderr.empty() ? "" : " / ") + line;
    });
    std::string first;
    const bool ready = filter->Started() &&
                       filter->Next(first, deadline) == FilterChild::Event::Line && first == Hungry;
    if (!ready) {
        // Whatever it wrote answers no job and never reaches smtpserver.
        if (!filter->Started())
            heldStderr = filter->Failure();
        const std::string how = filter->Started() ? filter->Finish(deadline) : "not run";
        filter.reset();
        nextStart = Clock::now() + std::chrono::seconds(1);
        log.Error("filter did not start (" + how + "): " + heldStderr +
                  "; next start in 1 s, jobs meanwhile answered with the error action");
    }
    starting = false;
    if (ready && !heldStderr.empty())
        log.Error(heldStderr);
    return ready;
}

std::string Supervisor::Answer(const std::string& jobLine)
{
    const Deadline deadline = Clock::now() + settings.jobLimit;
    const time_t jobStart = std::time(nullptr);
    startFailed = !filter && !StartFilter(deadline);
    if (startFailed)
        return FailureReply();
    if (!filter->Send(jobLine + "\n")) {
        EndFilter("took no job", true, jobStart);
        return FailureReply();
    }
    // Its reply is the last whole line before "#hungry"; a filter that fails
    // writes its reply and ends without one.
    std::string reply, line;
    for (;;) {
        switch (filter->Next(line, deadline)) {
        case FilterChild::Event::Line:
            if (line != Hungry) {
                reply = line + "\n";
                continue;
            }
            if (reply.empty())
                EndFilter("answered nothing", true, jobStart);
            break;
        case FilterChild::Event::End:
            EndFilter("ended in a job", false, jobStart);
            break;
        case FilterChild::Event::Deadline:
            EndFilter("no answer within " + std::to_string(settings.jobLimit.count()) + " s", true,
                      jobStart);
            break;
        default: // Overlong, or Watched, which is never asked for here
            EndFilter("wrote an overlong line", true, jobStart);
            reply.clear();
            break;
        }
        return reply.empty() ? FailureReply() : reply;
    }
}

void Supervisor::EndFilter(const std::string& why, bool kill, time_t jobStart)
{
    LeftEntriesSweep sweep;
    const std::string how = filter->Finish(Clock::now() + settings.jobLimit, kill, [&](pid_t pid) {
        if (jobStart != 0 && !settings.basedir.empty())
            sweep = RemoveLeftEntries(settings.basedir, pid, jobStart);
    });
    filter.reset();
    log.Warn("filter " + why + " (" + how + "); a fresh one takes the next job");
    for (const std::string& name : sweep.removed)
        log.Warn("removed entry " + name + " that the filter left");
    for (const std::string& fault : sweep.faults)
        log.Error("can not remove the entries the filter left: " + fault);
}

void Supervisor::Finish()
{
    if (!filter)
        return;
    const std::string how = filter->Finish(Clock::now() + settings.jobLimit);
    filter.reset();
    if (how != "exit status 0")
        log.Warn("filter ended at shutdown (" + how + ")");
}
