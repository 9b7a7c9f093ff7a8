// daemon/UpstreamPool.cpp: a failed try is caught here, where it is an
// expected event (a host restarting), marked against its upstream and
// followed by a try elsewhere; what no upstream could answer still throws
// to Checker, the one place that turns it into a daemon error.
#include "UpstreamPool.h"

#include <cerrno>
#include <poll.h>
#include <random>
#include <stdexcept>

#include "DaemonLog.h"

namespace
{

// How often the prober looks for upstreams due, and how long one ping may
// take: an engine that is back answers its ping in milliseconds.
constexpr int ProbeIntervalMs = 250;
constexpr std::chrono::milliseconds PingTimeout(1000);

} // namespace

UpstreamPool::UpstreamPool(std::vector<Upstream> given, std::chrono::seconds revive)
    : upstreams(std::move(given)), revive(revive), health(upstreams.size()),
      series(upstreams.size(), nullptr)
{
    if (upstreams.empty())
        throw std::logic_error("an engine pool without an upstream");
    next = std::random_device()() % upstreams.size();
}

std::size_t UpstreamPool::UpCount() const
{
    std::size_t count = 0;
    for (const Health& one : health)
        count += one.up ? 1 : 0;
    return count;
}

std::size_t UpstreamPool::Choose(const std::vector<bool>& tried, std::size_t& share)
{
    const std::lock_guard<std::mutex> lock(mutex);
    const std::size_t size = upstreams.size();
    std::size_t chosen = size, fallback = size, upLeft = 0, downLeft = 0;
    for (std::size_t step = 0; step < size; ++step) {
        const std::size_t at = (next + step) % size;
        if (tried[at])
            continue;
        if (!health[at].up) {
            ++downLeft;
            fallback = fallback == size ? at : fallback;
            continue;
        }
        ++upLeft;
        chosen = chosen == size ? at : chosen;
    }
    if (chosen == size) {
        share = downLeft;
        return fallback;
    }
    share = upLeft;
    next = (chosen + 1) % size;
    return chosen;
}

void UpstreamPool::MarkDown(std::size_t at, const std::string& cause)
{
    std::string line;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        Health& one = health[at];
        one.reviveAt = Clock::now() + revive;
        if (!one.up)
            return;
        one.up = false;
        one.downSince = Clock::now();
        RecordUpstreamUp(series[at], false);
        line = std::string(Name()) + " " + Address(at) + " down: " + cause + "; " +
               std::to_string(UpCount()) + " of " + std::to_string(Size()) + " up";
    }
    Say(LOG_WARNING, line);
}

void UpstreamPool::MarkUp(std::size_t at)
{
    std::string line;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        Health& one = health[at];
        if (one.up)
            return;
        one.up = true;
        RecordUpstreamUp(series[at], true);
        const auto down =
            std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - one.downSince).count();
        line = std::string(Name()) + " " + Address(at) + " up again after " + std::to_string(down) +
               " s; " + std::to_string(UpCount()) + " of " + std::to_string(Size()) + " up";
    }
    Say(LOG_INFO, line);
}

EngineResult UpstreamPool::Check(int msg, const struct stat& status,
                                 const MessageEnvelope& envelope, Deadline deadline)
{
    std::vector<bool> tried(upstreams.size(), false);
    std::string causes;
    for (;;) {
        std::size_t share = 1;
        const std::size_t at = Choose(tried, share);
        if (at == upstreams.size())
            throw std::domain_error(causes);
        const auto now = Clock::now();
        if (now >= deadline)
            throw std::domain_error(causes + (causes.empty() ? "" : "; ") + "timed out");
        tried[at] = true;
        // A share of 1 (the last candidate) is the whole rest.
        const Deadline tryDeadline = now + (deadline - now) / static_cast<int>(share);
        EngineResult result;
        try {
            result = upstreams[at].engine->Check(msg, status, envelope, tryDeadline);
        } catch (const std::exception& failure) {
            const auto end = Clock::now();
            RecordTry(series[at], end >= tryDeadline ? TryResult::Timeout : TryResult::Error,
                      end - now);
            MarkDown(at, failure.what());
            causes += (causes.empty() ? "" : "; ") + Address(at) + ": " + failure.what();
            continue;
        }
        RecordTry(series[at], result.finding == Finding::Clean ? TryResult::Clean : TryResult::Found,
                  Clock::now() - now);
        MarkUp(at);
        result.summary += " via " + Address(at);
        result.upstream = Address(at);
        return result;
    }
}

std::string UpstreamPool::PingOne(std::size_t at, Deadline deadline)
{
    try {
        upstreams[at].engine->Ping(deadline);
    } catch (const std::exception& failure) {
        MarkDown(at, failure.what());
        return failure.what();
    }
    MarkUp(at);
    return "";
}

void UpstreamPool::Ping(Deadline deadline)
{
    std::string causes;
    bool answered = false;
    for (std::size_t at = 0; at < upstreams.size(); ++at) {
        const std::string cause = PingOne(at, deadline);
        answered = answered || cause.empty();
        if (!cause.empty())
            causes += (causes.empty() ? "" : "; ") + Address(at) + ": " + cause;
    }
    if (!answered)
        throw std::domain_error(causes);
}

void UpstreamPool::PingEach()
{
    for (std::size_t at = 0; at < upstreams.size(); ++at)
        (void)PingOne(at, Clock::now() + PingTimeout); // a failure is marked and logged there
}

void UpstreamPool::ProbeDue(std::chrono::milliseconds timeout)
{
    for (std::size_t at = 0; at < upstreams.size(); ++at) {
        bool due = false;
        {
            const std::lock_guard<std::mutex> lock(mutex);
            due = !health[at].up && Clock::now() >= health[at].reviveAt;
        }
        if (!due)
            continue;
        // A failed ping marks it down again until its next revive time.
        (void)PingOne(at, Clock::now() + timeout);
    }
}

void UpstreamPool::AttachMetrics(Metrics& metrics)
{
    for (std::size_t at = 0; at < upstreams.size(); ++at)
        series[at] = metrics.AddUpstream(Name(), Address(at));
}

void RunProber(std::vector<UpstreamPool*> pools, int stopFd)
{
    for (;;) {
        pollfd stop = {stopFd, POLLIN, 0};
        const int count = ::poll(&stop, 1, ProbeIntervalMs);
        if (count > 0 || (count < 0 && errno != EINTR))
            return;
        for (UpstreamPool* pool : pools)
            pool->ProbeDue(PingTimeout);
    }
}
