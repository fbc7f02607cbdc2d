#include <array>

#include "ProcDetLog.h"
#include "feature_detaction/ProcDetActionFullTask.h"
#include "feature_detaction/ProcDetManager.h"

namespace Engine {

namespace {

// Log lines and CPU governor calls name the class, not this file.
constexpr const char* kProcDetSource = "module/module_procdet/feature_detaction/ProcDetManager";

}  // namespace

void ProcDetManager::MakeDesc(unsigned int flags, std::string& out) {
    if (flags == 0) {
        out = "CLEAR";
        return;
    }
    static const std::array<const char*, 9> kWords = {"PROC_TMP, ",     "PROC_HIDDEN, ", "PROC_DELETED, ",
                                                      "LOGIN_OTHERS, ", "CONNECT_BIP, ", "HIGHCPU, ",
                                                      "STRINGS, ",      "CMDLINE, ",     "PACKER, "};
    std::string desc;
    for (size_t bit = 0; bit < kWords.size(); ++bit) {
        if ((flags & (1u << bit)) != 0) {
            desc += kWords[bit];
        }
    }
    out = desc;
}

void ProcDetManager::RecordCheckResult(ProcRecord proc, long now, int flags, const NumDetails& numDetails,
                                       const StrDetails& strDetails, bool& changed) {
    ProcCheckInfo& info = results_[proc->pid];
    if (info.flags != static_cast<unsigned int>(flags)) {
        // Only a different set of findings counts as new; details of an unchanged set
        // stay as first recorded so that a steady finding is not reported again.
        changed = true;
        std::string desc;
        MakeDesc(static_cast<unsigned int>(flags), desc);
        info.filePath = proc->exePath;
        info.flags = static_cast<unsigned int>(flags);
        info.numDetails = numDetails;
        info.strDetails = strDetails;
        PROCDET_DEBUG(logger_, "DetectNEW RESULT %d %s=>%d (%s)", proc->pid, proc->exePath, flags, desc);
    }
    info.lastSeen = now;
}

void ProcDetManager::CleanAndNotify(long now, bool& changed) {
    for (auto it = results_.begin(); it != results_.end();) {
        if (it->second.lastSeen != now) {
            it = results_.erase(it);
            changed = true;
        } else {
            ++it;
        }
    }
    if (!changed) {
        return;
    }
    auto* task = dynamic_cast<ProcDetActionFullTask*>(task_);
    if (task == nullptr) {
        return;
    }
    task->DetActionNotify(results_, notifyContext_);
}

void ProcDetManager::Clean() {
    for (DetectorEntry& entry : detectors_) {
        delete entry.detector;
    }
    detectors_.clear();
    results_.clear();
}

void ProcDetManager::GetProcInfoMap(ResultMap& out) const {
    if (&out != &results_) {
        out = results_;
    }
}

void ProcDetManager::SetIgnoreFilepathSet(const std::set<std::string>& paths) {
    if (&paths != &ignoreFilepaths_) {
        ignoreFilepaths_ = paths;
    }
}

}  // namespace Engine
