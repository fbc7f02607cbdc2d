#include "feature_detaction/ProcDetActionFullTask.h"

#include <array>
#include <new>

#include "ProcDetLog.h"
#include "feature_detaction/DetectorProc.h"
#include "feature_detaction/ProcDetCpu.h"
#include "feature_detaction/ProcDetNetstat.h"
#include "feature_detaction/ProcDetStrings.h"

namespace Engine {

namespace {

// Log lines and CPU governor calls name the class, not this file.
constexpr const char* kProcDetSource = "module/module_procdet/feature_detaction/ProcDetActionFullTask";

}  // namespace

ProcDetActionFullTask::ProcDetActionFullTask()
    : Framework::Task(kDetActionTaskName, kDetActionFeatureName, Framework::TaskCondition::TASK_TYPE_PERIODIC,
                      0) {}

int ProcDetActionFullTask::Init() {
    logger_ = GetProcDetLogger();
    PROCDET_INFO(logger_, "ProcDetActionFullTask init");
    manager_.Init(this, nullptr);

    auto* policy = dynamic_cast<ProcDetActionFullTaskPolicy*>(GetTaskPolicy());
    if (policy == nullptr) {
        return false;
    }
    // The attached policy may be replaced once Init returns, so everything is copied.
    reportScore_ = policy->GetReportScore();
    scores_ = policy->GetScoreMap();
    ignoreFilepaths_ = policy->GetIgnoreFilepaths();
    illegalIps_ = policy->GetIllegalIps();
    biplibUrl_ = policy->GetBiplibUrl();
    biplibHash_ = policy->GetBiplibHash();
    cpuUsageWarn_ = policy->GetCpuUsageWarn();
    strings_ = policy->GetStrings();
    for (const std::string& keyword : strings_) {
        if (keyword.size() > ProcDetStrings::kMaxKeywordLength) {
            PROCDET_ERROR(logger_, "keyword longer than %lu bytes ignored: %s...",
                          static_cast<unsigned long>(ProcDetStrings::kMaxKeywordLength),
                          keyword.substr(0, 64));
        }
    }
    checkStrMaxSizeM_ = policy->GetCheckStrMaxSizeM();
    return Framework::Task::Init();
}

int ProcDetActionFullTask::Run() {
    PROCDET_INFO(logger_, "ProcDetActionFullTask run");
    const int interval = static_cast<int>(GetTaskCondition().GetTaskCondition().repeatInterval);
    PreCheckDetectors(interval);
    manager_.Check(interval, this);
    return 0;
}

void ProcDetActionFullTask::UnInit() {
    PROCDET_INFO(logger_, "ProcDetActionFullTask UnInit");
    Framework::Task::UnInit();
}

void ProcDetActionFullTask::PreCheckDetectors(int interval) {
    if (!detectorsAdded_) {
        detectorsAdded_ = AddDeters(interval) != 0;
    } else {
        UpdateDetectorInfo();
    }
}

int ProcDetActionFullTask::AddDeters(int interval) {
    // Registered with the cycle's own interval, every detector runs in every cycle.
    detectorProc_ = new (std::nothrow) DetectorProc();
    if (detectorProc_ == nullptr) {
        return false;
    }
    manager_.AddDetector(detectorProc_, interval);

    detectorNetstat_ = new (std::nothrow) ProcDetNetstat();
    if (detectorNetstat_ == nullptr) {
        return false;
    }
    manager_.AddDetector(detectorNetstat_, interval);

    detectorCpu_ = new (std::nothrow) ProcDetCpu();
    if (detectorCpu_ == nullptr) {
        return false;
    }
    detectorCpu_->SetHighCpuThreshold(cpuUsageWarn_);
    manager_.AddDetector(detectorCpu_, interval);

    detectorStrings_ = new (std::nothrow) ProcDetStrings();
    if (detectorStrings_ == nullptr) {
        return false;
    }
    manager_.AddDetector(detectorStrings_, interval);

    UpdateDetectorInfo();
    return true;
}

void ProcDetActionFullTask::UpdateDetectorInfo() {
    manager_.SetIgnoreFilepathSet(ignoreFilepaths_);
    if (detectorNetstat_ != nullptr) {
        detectorNetstat_->SetBlackip(illegalIps_);
        detectorNetstat_->SetBlackipLib(biplibUrl_, biplibHash_);
    }
    if (detectorCpu_ != nullptr) {
        detectorCpu_->SetHighCpuThreshold(cpuUsageWarn_);
    }
    if (detectorStrings_ != nullptr) {
        // Only processes the CPU detector flagged in the same cycle are searched. MiB to
        // bytes by multiplying: a negative limit (nothing is read) must not be shifted.
        const long maxFileSize = static_cast<long>(checkStrMaxSizeM_) * (1L << 20);
        detectorStrings_->Init(strings_, maxFileSize, HIGHCPU, logger_);
    }
}

unsigned int ProcDetActionFullTask::CalcScore(int flags) const {
    if (flags == 0) {
        return 0;
    }
    // CMDLINE (0x080) is left out: it never adds to the score.
    static constexpr std::array<unsigned int, 8> kScoredBits = {
        PROC_TMP, PROC_HIDDEN, PROC_DELETED, LOGIN_OTHERS, CONNECT_BIP, HIGHCPU, STRINGS, PACKER};
    unsigned int score = 0;
    for (unsigned int bit : kScoredBits) {
        if ((static_cast<unsigned int>(flags) & bit) == 0) {
            continue;
        }
        const auto it = scores_.find(bit);
        if (it != scores_.end()) {
            score += static_cast<unsigned int>(it->second);
        }
    }
    return score;
}

}  // namespace Engine
