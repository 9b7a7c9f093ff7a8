// daemon/Metrics.cpp: prometheus-cpp's registry and text format behind
// Metrics, served by MetricsListener. Bucket bounds cover a fast clean pass (milliseconds) up to
// the longest engine deadline a site sets (a minute).
#include "Metrics.h"

#include <cstdlib>
#include <list>
#include <sstream>
#include <stdexcept>

#include <prometheus/counter.h>
#include <prometheus/gauge.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>
#include <prometheus/text_serializer.h>

#include "MetricsListener.h"
#include "shared/conversation/Conversation.h"

namespace pm = prometheus;

struct UpstreamSeries {
    pm::Histogram& duration;
    pm::Counter* results[4]; // by TryResult
    pm::Gauge& up;
};

namespace
{

const pm::Histogram::BucketBoundaries& LatencyBuckets()
{
    static const pm::Histogram::BucketBoundaries bounds = {
        0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1, 0.25, 0.5, 1, 2.5, 5, 10, 20, 30, 60};
    return bounds;
}

const char* const TryResultNames[] = {"clean", "found", "error", "timeout"};
const char* const VerdictNames[] = {"pass", "reject", "tempfail", "error", "other"};

double Seconds(std::chrono::nanoseconds took)
{
    return std::chrono::duration<double>(took).count();
}

} // namespace

struct Metrics::Parts {
    std::shared_ptr<pm::Registry> registry = std::make_shared<pm::Registry>();
    pm::Family<pm::Counter>& checks =
        pm::BuildCounter()
            .Name("quelt_checks_total")
            .Help("Checks answered, by verdict (pass, reject, tempfail, error: the daemon could "
                  "not tell, other: a fixed test verdict)")
            .Register(*registry);
    pm::Family<pm::Histogram>& checkDuration =
        pm::BuildHistogram()
            .Name("quelt_check_duration_seconds")
            .Help("Time from a check's request to its answer, all engines included")
            .Register(*registry);
    pm::Family<pm::Gauge>& inFlight = pm::BuildGauge()
                                          .Name("quelt_checks_in_flight")
                                          .Help("Checks being worked on now")
                                          .Register(*registry);
    pm::Family<pm::Histogram>& engineDuration =
        pm::BuildHistogram()
            .Name("quelt_engine_duration_seconds")
            .Help("Time one upstream of an engine took for one try, failed tries included")
            .Register(*registry);
    pm::Family<pm::Counter>& engineResults =
        pm::BuildCounter()
            .Name("quelt_engine_results_total")
            .Help("Tries of one upstream of an engine, by result (clean, found: a virus, spam "
                  "or limit find, error: refused, reset or a bad answer, timeout)")
            .Register(*registry);
    pm::Family<pm::Gauge>& upstreamUp =
        pm::BuildGauge()
            .Name("quelt_upstream_up")
            .Help("1 while an engine's upstream gets messages, 0 while it is down after a "
                  "failure (until a probe finds it back)")
            .Register(*registry);
    pm::Family<pm::Gauge>& kept =
        pm::BuildGauge()
            .Name("quelt_kept_entries")
            .Help("Entries kept after a reject, tempfail or discard, as the last sweep found them")
            .Register(*registry);
    pm::Family<pm::Gauge>& oldestKept =
        pm::BuildGauge()
            .Name("quelt_oldest_kept_entry_age_seconds")
            .Help("Age of the oldest kept entry at the last sweep (0 when none)")
            .Register(*registry);
    pm::Family<pm::Counter>& spoolFsyncFailures =
        pm::BuildCounter()
            .Name("quelt_spool_fsync_failures_total")
            .Help("Rewrites of a spool file with a changed message whose flush to disk failed, "
                  "as the filters reported them (the message passed all the same)")
            .Register(*registry);
    pm::Family<pm::Gauge>& buildInfo = pm::BuildGauge()
                                           .Name("quelt_build_info")
                                           .Help("Always 1; the version of this quelt-refd")
                                           .Register(*registry);

    pm::Counter* checksBy[5] = {};
    pm::Histogram& checkLatency = checkDuration.Add({}, LatencyBuckets());
    pm::Gauge& inFlightNow = inFlight.Add({});
    pm::Gauge& keptNow = kept.Add({});
    pm::Gauge& oldestNow = oldestKept.Add({});
    pm::Counter& spoolFsyncFailuresNow = spoolFsyncFailures.Add({});
    std::list<UpstreamSeries> upstreams; // stable addresses
    std::unique_ptr<MetricsListener> listener;
};

Metrics::Metrics() : parts(std::make_unique<Parts>())
{
    for (int at = 0; at < 5; ++at)
        parts->checksBy[at] = &parts->checks.Add({{"verdict", VerdictNames[at]}});
    parts->buildInfo.Add({{"version", VOREX_VERSION}}).Set(1);
}

// The listener goes first: no scrape runs while the families go.
Metrics::~Metrics()
{
    parts->listener.reset();
}

UpstreamSeries* Metrics::AddUpstream(const std::string& engine, const std::string& address)
{
    const pm::Labels labels = {{"engine", engine}, {"upstream", address}};
    UpstreamSeries& series = parts->upstreams.emplace_back(UpstreamSeries{
        parts->engineDuration.Add(labels, LatencyBuckets()), {}, parts->upstreamUp.Add(labels)});
    for (int at = 0; at < 4; ++at) {
        pm::Labels withResult = labels;
        withResult["result"] = TryResultNames[at];
        series.results[at] = &parts->engineResults.Add(withResult);
    }
    series.up.Set(1);
    return &series;
}

void Metrics::Serve(const std::string& listen)
{
    parts->listener = std::make_unique<MetricsListener>(listen, [this] { return Text(); });
}

std::string Metrics::Text() const
{
    return pm::TextSerializer().Serialize(parts->registry->Collect());
}

void Metrics::CheckStarted()
{
    parts->inFlightNow.Increment();
}

void Metrics::CheckEnded(CheckVerdict verdict, std::chrono::nanoseconds took)
{
    parts->inFlightNow.Decrement();
    parts->checksBy[static_cast<int>(verdict)]->Increment();
    parts->checkLatency.Observe(Seconds(took));
}

void Metrics::KeptEntries(std::size_t count, std::chrono::seconds oldestAge)
{
    parts->keptNow.Set(static_cast<double>(count));
    parts->oldestNow.Set(static_cast<double>(oldestAge.count()));
}

void Metrics::SpoolFsyncFailed()
{
    parts->spoolFsyncFailuresNow.Increment();
}

CheckVerdict VerdictOfAnswer(const std::string& answer)
{
    // A pass may say its headers changed; any other mix is a test's.
    const unsigned long value = std::strtoul(answer.c_str(), nullptr, 10);
    if ((value & ~static_cast<unsigned long>(VerdictHeadersChanged)) == VerdictPass)
        return CheckVerdict::Pass;
    if (value == VerdictReject)
        return CheckVerdict::Reject;
    if (value == VerdictTempfail)
        return CheckVerdict::Tempfail;
    if (value == VerdictDaemonError)
        return CheckVerdict::Error;
    return CheckVerdict::Other;
}

const char* VerdictName(CheckVerdict verdict)
{
    return VerdictNames[static_cast<int>(verdict)];
}

void RecordTry(UpstreamSeries* series, TryResult result, std::chrono::nanoseconds took)
{
    if (series == nullptr)
        return;
    series->results[static_cast<int>(result)]->Increment();
    series->duration.Observe(Seconds(took));
}

void RecordUpstreamUp(UpstreamSeries* series, bool up)
{
    if (series != nullptr)
        series->up.Set(up ? 1 : 0);
}
