#include <Poco/Exception.h>
#include <sys/stat.h>

#include <cstdio>
#include <exception>

#include "AgentApp.h"
#include "AgentSignals.h"

int main(int argc, char** argv) {
    // Before any thread exists, so that all of them leave these signals to main's sigwait.
    Agent::AgentSignals::BlockInProcess();
    // Everything the agent creates (logs, alerts, spool, rotated copies) is root's alone.
    ::umask(077);
    try {
        Agent::AgentApp app;
        app.init(argc, argv);
        return app.run();
    } catch (const Poco::Exception& failure) {
        std::fprintf(stderr, "corvane-agent: %s\n", failure.displayText().c_str());
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "corvane-agent: %s\n", failure.what());
    }
    return 1;
}
