#pragma once

#include <string>

#include "AlertSplitter.h"

namespace Agent {

// Wraps an alert line, unchanged, in the fields a SIEM maps (ECS names):
// {"@timestamp", "host": {"name", "id"}, "agent": {"name", "version"},
//  "event": {"kind", "code"}, "corvane_flags": [{"process_pid", "names"}],
//  "corvane_context": [{"process_pid", "container", "namespaces", "host_namespaces", "user"}],
//  "corvane": <the alert as the module wrote it>}.
class SiemEnvelope {
public:
    // hostId: the contents of /etc/machine-id (may be empty).
    SiemEnvelope(std::string hostName, std::string hostId, std::string agentVersion);

    // The wrapped line, ending in '\n'. A line that is not a JSON object is
    // wrapped all the same, without the fields read from the alert. A part of
    // a split alert carries `tie` as "corvane_split": {"of", "processes"}.
    std::string Wrap(const std::string& line, const AlertSplitter::Tie* tie = nullptr) const;

    // This machine's host name and /etc/machine-id.
    static std::string HostName();
    static std::string MachineId();

private:
    std::string hostName_;
    std::string hostId_;
    std::string agentVersion_;
};

}  // namespace Agent
