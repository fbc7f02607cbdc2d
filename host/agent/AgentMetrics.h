#pragma once

#include "framework/Metrics.h"

namespace Agent {

// The agent's own series: each by its one name and help text, present with 0
// from the first scrape, and the process figures a Prometheus client library
// would export (resident memory, CPU seconds, open files, start time).
namespace AgentMetrics {

Framework::MetricCounter& ModuleLoadErrors();
Framework::MetricCounter& PolicyRefreshes();
Framework::MetricCounter& PolicyRefusals();

// Creates every agent series (with 0), corvane_build_info, and a refresher that
// reads the process figures from /proc/self at each scrape.
void Publish(const void* owner);

}  // namespace AgentMetrics

}  // namespace Agent
