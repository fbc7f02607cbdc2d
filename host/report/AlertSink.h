#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace Agent {

// Something about a sink's settings that keeps it from delivering, found without
// connecting anywhere: the member of its agent.json entry ("ca_file",
// "properties.acks"), what is wrong, and whether the agent refuses to start the
// sink (no later change on the machine can help) or starts it to retry (a file or
// socket may still appear).
struct SinkProblem {
    std::string member;
    std::string what;
    bool refusesSink = false;
};

// One destination of alert lines (a file, standard output, syslog, a webhook,
// Kafka). A sink is driven by one thread of its own (AlertSinkPump) and never
// sees two calls at once.
class AlertSink {
public:
    virtual ~AlertSink() = default;

    // Delivers `lines` (each one JSON document ending in '\n'), in order.
    // Returns how many of the first lines the destination has confirmed; when
    // that is fewer than all, `error` says why. Lines not confirmed are offered
    // again later, from the first one not confirmed.
    virtual size_t Deliver(const std::vector<std::string>& lines, std::string& error) = 0;

    // The sink as log lines name it (a path, "standard output", a URL).
    virtual std::string Describe() const = 0;

    // Makes what Deliver confirmed durable before the spool position moves past
    // it (a file syncs; network sinks have nothing to do). False with the reason.
    virtual bool Sync(std::string& /*error*/) { return true; }

    // How many lines one Deliver call should carry at most.
    virtual size_t MaxBatch() const { return 1024; }

    // The longest line (with its '\n') the destination takes as one message
    // after this sink's own framing; 0: any length. Longer alerts are split.
    virtual size_t MaxLineBytes() const { return maxLineBytes_; }
    // Sets the bound for sinks without one of their own (files, standard output).
    void LimitLines(size_t bytes) { maxLineBytes_ = bytes; }

    // Asks the sink to reopen what it writes to (SIGUSR1, after logrotate
    // moved a file). Called from another thread: only sets a flag.
    virtual void RequestReopen() {}

    // Whether the last Deliver was refused for good: the destination judged
    // what it was sent (an HTTP 400 or 413, a Kafka message over its size
    // limit), so offering the same lines again will not help. Clears the mark.
    bool TakeRefusedForGood() {
        const bool refused = refusedForGood_;
        refusedForGood_ = false;
        return refused;
    }

protected:
    // Called by Deliver when the first line not confirmed, or one after it, was refused for good.
    void MarkRefusedForGood() { refusedForGood_ = true; }

    // write(2) loop over a descriptor, retried on EINTR. Moves `offset` past
    // what was written; returns 0 once all of `data` is out, else the errno.
    static int WriteToFd(int fd, const std::string& data, size_t& offset);

private:
    size_t maxLineBytes_ = 0;
    bool refusedForGood_ = false;
};

}  // namespace Agent
