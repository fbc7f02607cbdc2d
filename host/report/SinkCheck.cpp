#include "report/SinkCheck.h"

#include "AlertSinkFactory.h"
#include "AlertSpool.h"

namespace Agent {

namespace {

const char* const kSpoolKey = "alerts.spool.directory";

}  // namespace

std::vector<ReportProblem> CheckSinks(const ReportSettings& settings) {
    std::vector<ReportProblem> problems;
    std::string error;
    if (!AlertSpool::CheckPlace(settings.spoolDir, error)) {
        problems.push_back(
            {kSpoolKey, error + "; the spool is refused: alerts wait in memory and reach no sink"});
    }
    for (const SinkSettings& sink : settings.AllSinks()) {
        for (const SinkProblem& problem : AlertSinkFactory::Check(sink)) {
            problems.push_back({sink.KeyOf(problem.member), AlertSinkFactory::Explain(problem)});
        }
    }
    return problems;
}

std::vector<std::pair<std::string, std::string>> WrittenPaths(const ReportSettings& settings) {
    std::vector<std::pair<std::string, std::string>> paths = {{kSpoolKey, settings.spoolDir}};
    for (const SinkSettings& sink : settings.AllSinks()) {
        if (sink.type == "file") {
            paths.emplace_back(sink.KeyOf("path"), sink.path);
        }
    }
    return paths;
}

}  // namespace Agent
