#include "report/ReportSettings.h"

namespace Agent {

std::string SinkSettings::KeyOf(const std::string& member) const {
    if (origin.empty()) {
        return member;
    }
    return origin.back() == ']' ? origin + "." + member : origin;
}

std::vector<SinkSettings> ReportSettings::AllSinks() const {
    std::vector<SinkSettings> all;
    if (toStdout) {
        SinkSettings out;
        out.type = out.name = "stdout";
        out.origin = "alerts.stdout";
        all.push_back(out);
    }
    if (!filePath.empty()) {
        SinkSettings file;
        file.type = file.name = "file";
        file.origin = "alerts.file";
        file.path = filePath;
        file.rotateBytes = rotateBytes;
        file.keepFiles = keepFiles;
        all.push_back(file);
    }
    all.insert(all.end(), sinks.begin(), sinks.end());
    return all;
}

}  // namespace Agent
