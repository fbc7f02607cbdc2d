#include "ProcChangeLog.h"

namespace Engine {

void ProcChangeLog::SetLive(bool live) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (live && !live_) {
        lost_ = true;
    }
    live_ = live;
}

void ProcChangeLog::Overflow() {
    changed_.clear();
    exited_.clear();
    lost_ = true;
}

void ProcChangeLog::NoteChanged(const std::vector<int>& pids) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (lost_) {
        return;  // the rescan to come will see them
    }
    changed_.insert(pids.begin(), pids.end());
    if (changed_.size() > kMaxPending) {
        Overflow();
    }
}

void ProcChangeLog::NoteExited(const std::vector<int>& pids) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (lost_) {
        return;
    }
    exited_.insert(pids.begin(), pids.end());
    if (exited_.size() > kMaxPending) {
        Overflow();
    }
}

void ProcChangeLog::NoteLost() {
    std::lock_guard<std::mutex> lock(mutex_);
    Overflow();
}

void ProcChangeLog::Take(Changes& out) {
    std::lock_guard<std::mutex> lock(mutex_);
    out.changed.assign(changed_.begin(), changed_.end());
    out.exited.assign(exited_.begin(), exited_.end());
    out.live = live_;
    out.lost = lost_;
    changed_.clear();
    exited_.clear();
    // Keep the tables' buckets from a storm from staying allocated.
    if (changed_.bucket_count() > 1024) {
        std::unordered_set<int>().swap(changed_);
    }
    if (exited_.bucket_count() > 1024) {
        std::unordered_set<int>().swap(exited_);
    }
    lost_ = false;
}

}  // namespace Engine
