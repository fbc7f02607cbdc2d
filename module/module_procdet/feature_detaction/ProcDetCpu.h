#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <string>

#include "feature_detaction/ProcDetBase.h"
#include "sdk/CpuCalcUtils.h"

namespace Engine {

// Flags a process whose CPU usage lies above a threshold. Keeps one usage
// calculator per process across cycles, so the usage is measured between two
// cycles; a pid that went to another process (another start time) starts a new
// one, which gives the process's average over its life first.
class ProcDetCpu : public ProcDetBase {
public:
    static constexpr int kDefaultThreshold = 9000;

    struct CPU_INFO {
        std::unique_ptr<SDK::CpuCalcUtils> calc;
        int64_t startTime = 0;  // of the process measured, as its record gives it
        long lastSeen = 0;      // cycleStamp of the last cycle that checked the pid
    };

    std::string GetName() override { return "cpu"; }
    bool Prepare() override;
    bool CheckProcess(ProcRecord proc, unsigned int& flags, NumDetails& numDetails,
                      StrDetails& strDetails) override;
    void Finish() override;

    // In the unit of SDK::CpuCalcUtils::GetCpuUsage (hundredths of a percent of one CPU).
    void SetHighCpuThreshold(int threshold) { highCpuThreshold_ = threshold; }
    int GetHighCpuThreshold() const { return highCpuThreshold_; }
    size_t GetTrackedCount() const { return cpuInfos_.size(); }

private:
    int highCpuThreshold_ = kDefaultThreshold;
    long cycleStamp_ = 0;
    std::map<int, CPU_INFO> cpuInfos_;
};

}  // namespace Engine
