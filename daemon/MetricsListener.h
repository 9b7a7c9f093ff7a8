// daemon/MetricsListener.h: the HTTP listener that serves /metrics. One
// thread of its own runs every connection asynchronously: an idle or slow
// client holds a socket, never the listener. Each connection gets one
// request and one answer within RequestTimeout; past MaxConnections open
// ones the oldest is closed. Throws std::domain_error when the address
// cannot be resolved or bound.
#pragma once

#include <functional>
#include <memory>
#include <string>

class MetricsListener
{
public:
    // listen: "HOST:PORT" or "[V6]:PORT"; text: the body of each answer to
    // GET /metrics, called on the listener's thread.
    MetricsListener(const std::string& listen, std::function<std::string()> text);
    // Stops the thread; no answer is being made when it returns.
    ~MetricsListener();
    MetricsListener(const MetricsListener&) = delete;
    MetricsListener& operator=(const MetricsListener&) = delete;

private:
    struct Parts;
    std::unique_ptr<Parts> parts;
};
