#include "feature_detaction/DetectorProc.h"

namespace Engine {

namespace {

bool StartsWith(const std::string& text, const char* prefix) {
    return text.compare(0, std::char_traits<char>::length(prefix), prefix) == 0;
}

}  // namespace

bool DetectorProc::CheckProcess(ProcRecord proc, unsigned int& flags, NumDetails& /*numDetails*/,
                                StrDetails& /*strDetails*/) {
    const std::string& path = proc->exePath;
    // "/var/tmp" without a slash on purpose: its look-alikes are just as suspicious.
    if (StartsWith(path, "/tmp/") || StartsWith(path, "/var/tmp")) {
        flags |= PROC_TMP;
    }
    if (path.find("/.") != std::string::npos) {
        flags |= PROC_HIDDEN;
    }
    static const std::string kDeleted = " (deleted)";
    const size_t pos = path.rfind(kDeleted);
    if (pos != std::string::npos && pos + kDeleted.size() == path.size()) {
        flags |= PROC_DELETED;
    }
    return true;
}

}  // namespace Engine
