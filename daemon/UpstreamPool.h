// daemon/UpstreamPool.h: one engine as a pool of upstreams (the same
// engine at several addresses, each a whole Engine of its own). The pool
// chooses, retries and keeps each upstream's health; it never reads an
// engine's answer, and an engine never knows it is in a pool.
//
// Choice: round robin over the upstreams that are up, from a random start
// per process. An upstream whose check throws (connect refused or reset,
// time-out, garbage, ERROR, early close) is down at once for the revive
// time and the message goes to another upstream not yet tried for it, up
// ones first, then down ones (they may be back). A find is an answer and
// never retried. Each try gets the time left divided by the untried
// upstreams that are up (at least one), so one slow host cannot eat the
// whole deadline while another is up, and the last candidate gets all that
// is left. Only when every upstream failed or the deadline passed does the
// check throw, with every upstream's cause. When every upstream is down, a
// message still tries them all: nothing fails without a try.
//
// Thread-safe: the mutex is held only while choosing and marking, never
// during an engine's I/O. The log gets one line per change of state.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Engine.h"
#include "Metrics.h"

class UpstreamPool final : public Engine
{
public:
    struct Upstream {
        std::unique_ptr<Engine> engine;
        std::string address; // as given, for the log
    };
    // upstreams: at least one, all of the same engine.
    UpstreamPool(std::vector<Upstream> upstreams, std::chrono::seconds revive);

    const char* Name() const override { return upstreams.front().engine->Name(); }
    bool UsesEnvelope() const override { return upstreams.front().engine->UsesEnvelope(); }
    EngineResult Check(int msg, const struct stat& status, const MessageEnvelope& envelope,
                       Deadline deadline) override;
    // Pings every upstream and marks each by its answer; throws when none
    // answered.
    void Ping(Deadline deadline) override;

    std::size_t Size() const { return upstreams.size(); }
    const std::string& Address(std::size_t at) const { return upstreams[at].address; }
    // Pings upstream at and marks it up or down by the result: empty when
    // it answered, else the engine's failure.
    std::string PingOne(std::size_t at, Deadline deadline);
    // Pings every upstream once, each within the prober's ping time-out,
    // and marks it by its answer: at the start, an upstream that does not
    // answer is down (its log line, its metric 0) before the first message.
    void PingEach();
    // Pings the upstreams that are down past their revive time (the
    // background probe): each gets until now + timeout.
    void ProbeDue(std::chrono::milliseconds timeout);
    // Records every try and change of state in metrics from now on. Before
    // the first check only.
    void AttachMetrics(Metrics& metrics);

private:
    struct Health {
        bool up = true;
        Clock::time_point downSince;
        Clock::time_point reviveAt;
    };
    // The next upstream for a message that tried those marked in tried
    // (Size() when none is left) and how many ways the time left is split:
    // the untried upstreams that are up, counting it, or when it is down,
    // all the untried ones.
    std::size_t Choose(const std::vector<bool>& tried, std::size_t& share);
    void MarkDown(std::size_t at, const std::string& cause);
    void MarkUp(std::size_t at);
    std::size_t UpCount() const; // with the mutex held

    const std::vector<Upstream> upstreams;
    const std::chrono::seconds revive;
    std::mutex mutex;
    std::vector<Health> health; // by the mutex
    std::size_t next;           // by the mutex: where round robin goes on
    std::vector<UpstreamSeries*> series; // by upstream; all null without metrics
};

// The background probe of every pool, off the message path: a few times a
// second it pings the upstreams down past their revive time, so a member
// that is back gets messages again within its revive time and a second.
// Returns when stopFd becomes readable.
void RunProber(std::vector<UpstreamPool*> pools, int stopFd);
