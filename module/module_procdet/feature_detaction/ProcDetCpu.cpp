#include "feature_detaction/ProcDetCpu.h"

#include <new>

namespace Engine {

bool ProcDetCpu::Prepare() {
    cycleStamp_ = static_cast<long>(time(nullptr));
    return true;
}

bool ProcDetCpu::CheckProcess(ProcRecord proc, unsigned int& flags, NumDetails& numDetails,
                              StrDetails& /*strDetails*/) {
    const int pid = proc->pid;
    auto it = cpuInfos_.find(pid);
    if (it != cpuInfos_.end() && it->second.startTime != proc->startTime) {
        // The pid went to another process: its usage is measured afresh.
        cpuInfos_.erase(it);
        it = cpuInfos_.end();
    }
    if (it == cpuInfos_.end()) {
        CPU_INFO info;
        info.calc.reset(new (std::nothrow) SDK::CpuCalcUtils());
        if (info.calc == nullptr) {
            return true;
        }
        info.calc->Init(pid);
        info.startTime = proc->startTime;
        it = cpuInfos_.emplace(pid, std::move(info)).first;
    }
    it->second.lastSeen = cycleStamp_;

    int usage = 0;
    if (!it->second.calc->GetCpuUsage(usage)) {
        // Gone, or its pid reused before the table showed it: a calculator bound
        // to that process fails for good, so the next cycle starts a new one.
        cpuInfos_.erase(it);
        return true;
    }
    if (highCpuThreshold_ < usage) {
        flags |= HIGHCPU;
        numDetails.emplace(kDetailCpu, static_cast<long>(usage));
    }
    return true;
}

void ProcDetCpu::Finish() {
    // Pids not checked this cycle lose their history and start afresh when seen again.
    for (auto it = cpuInfos_.begin(); it != cpuInfos_.end();) {
        if (it->second.lastSeen != cycleStamp_) {
            it = cpuInfos_.erase(it);
        } else {
            ++it;
        }
    }
}

}  // namespace Engine
