// daemon/Metrics.h: the daemon's Prometheus metrics. One Metrics object
// owns the registry, every family and the HTTP listener (/metrics); the rest
// of the daemon records through the small functions below and never sees a
// Prometheus type. Every series a check can touch is made once at start-up
// (per verdict, per engine and upstream), so recording a sample takes no
// family-wide lock: counters and gauges are atomic, a histogram locks only
// itself for one sample. With metrics off the pointers are null and every
// record function returns at once.
// Serve throws std::domain_error when its address cannot be bound.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

// What one upstream's try came to.
enum class TryResult { Clean, Found, Error, Timeout };
// What a check answered, by its verdict flags.
enum class CheckVerdict { Pass, Reject, Tempfail, Error, Other };

// The series of one upstream of one engine (opaque outside Metrics.cpp).
struct UpstreamSeries;

class Metrics
{
public:
    Metrics();
    ~Metrics();
    Metrics(const Metrics&) = delete;
    Metrics& operator=(const Metrics&) = delete;

    // The series of upstream address of engine, made now; up at first.
    // Start-up only (takes the families' locks).
    UpstreamSeries* AddUpstream(const std::string& engine, const std::string& address);

    // Binds listen ("HOST:PORT", "[V6]:PORT") and serves /metrics from a
    // thread of its own (MetricsListener) until destroyed.
    void Serve(const std::string& listen);

    // The registry's text as a scrape gets it (for tests and --check).
    std::string Text() const;

    // The in-flight gauge, the verdict counters and the latency histogram.
    void CheckStarted();
    void CheckEnded(CheckVerdict verdict, std::chrono::nanoseconds took);
    // The census of kept entries: how many and the oldest one's age.
    void KeptEntries(std::size_t count, std::chrono::seconds oldestAge);
    // A filter's report that the flush of a rewritten spool file failed.
    void SpoolFsyncFailed();

private:
    struct Parts;
    std::unique_ptr<Parts> parts;
};

// The verdict of an answer line's flags (its first word), and its name as
// metrics and the log give it ("pass", "reject", "tempfail", "error", "other").
CheckVerdict VerdictOfAnswer(const std::string& answer);
const char* VerdictName(CheckVerdict verdict);

// Null-safe recorders for the upstream pool.
void RecordTry(UpstreamSeries* series, TryResult result, std::chrono::nanoseconds took);
void RecordUpstreamUp(UpstreamSeries* series, bool up);
