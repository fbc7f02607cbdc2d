#include "AlertSinkWriter.h"

#include <cstring>
#include <utility>

#include "sdk/HostLog.h"

namespace Agent {

AlertSinkWriter::AlertSinkWriter(std::unique_ptr<AlertSink> sink, size_t backlogBytes)
    : sink_(std::move(sink)), backlogBytes_(backlogBytes) {}

void AlertSinkWriter::Add(std::string line) {
    pendingBytes_ += line.size();
    pending_.push_back(std::move(line));
    Flush();
    TrimBacklog();
}

bool AlertSinkWriter::Flush() {
    while (!pending_.empty()) {
        const std::string& line = pending_.front();
        const int error = sink_->WriteLine(line, frontOffset_);
        if (error != 0) {
            OnFailure(error);
            return false;
        }
        pendingBytes_ -= line.size();
        pending_.pop_front();
        frontOffset_ = 0;
        if (failing_) {
            ++writtenInOutage_;
        }
    }
    if (failing_) {
        OnRecovery();
    }
    return true;
}

void AlertSinkWriter::TrimBacklog() {
    // A partly written front line stays: dropping it would leave half a line in the sink.
    const size_t keep = frontOffset_ > 0 ? 1 : 0;
    while (pendingBytes_ > backlogBytes_ && pending_.size() > keep) {
        auto oldest = pending_.begin() + static_cast<std::ptrdiff_t>(keep);
        pendingBytes_ -= oldest->size();
        pending_.erase(oldest);
        if (droppedInOutage_ == 0) {
            HOST_LOG_ERROR("alert backlog of " + sink_->Describe() + " is full (" +
                           std::to_string(backlogBytes_) +
                           " bytes); dropping the oldest alerts until it recovers");
        }
        ++droppedInOutage_;
        ++droppedTotal_;
    }
}

void AlertSinkWriter::OnFailure(int error) {
    if (failing_) {
        return;
    }
    failing_ = true;
    writtenInOutage_ = 0;
    droppedInOutage_ = 0;
    HOST_LOG_ERROR("cannot write alerts to " + sink_->Describe() + ": " + std::strerror(error) +
                   "; keeping them in memory (up to " + std::to_string(backlogBytes_) +
                   " bytes) and retrying");
}

void AlertSinkWriter::OnRecovery() {
    failing_ = false;
    HOST_LOG_INFO("alerts reach " + sink_->Describe() + " again: " + std::to_string(writtenInOutage_) +
                  " held back written, " + std::to_string(droppedInOutage_) + " dropped");
}

}  // namespace Agent
