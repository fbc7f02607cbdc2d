#pragma once

#include <memory>
#include <string>

namespace prometheus {
class Exposer;
}

namespace Agent {

class FrameworkCollectable;

// Serves Framework::Metrics at http://<listen>/metrics in the Prometheus text
// format, through prometheus-cpp's pull exposer.
class MetricsEndpoint {
public:
    MetricsEndpoint();
    ~MetricsEndpoint();

    // `listen`: "host:port" (port 0: any free port). False with the reason when
    // it cannot listen.
    bool Start(const std::string& listen, std::string& error);
    // The port it listens on, 0 when not started.
    int GetPort() const;

private:
    std::shared_ptr<FrameworkCollectable> collectable_;
    std::unique_ptr<prometheus::Exposer> exposer_;
};

}  // namespace Agent
