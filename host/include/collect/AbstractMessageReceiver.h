#pragma once

#include <map>
#include <memory>

#include "collect/ProcsMessage.h"

namespace Engine {

// Other host event types a receiver may accept; this agent delivers none of them yet.
class FileNotifyMessage;
class FtraceMessage;
class AssetMessage {
public:
    struct assetInfo;
};

// The receiving side of host events. A task that receives ProcsMessages derives
// from Framework::Task and from this interface; the message finds the interface
// on the receiving task by dynamic_cast.
class AbstractMessageReceiver {
public:
    virtual int FileNotifyMessageAction(FileNotifyMessage*) { return 0; }
    virtual void ProcsMessageAction(int /*pid*/, unsigned int /*flag*/,
                                    std::shared_ptr<ProcsMessage::procInfo> /*record*/) {}
    virtual void AssetMessageAction(unsigned int,
                                    const std::map<int, std::shared_ptr<AssetMessage::assetInfo>>&) {}
    virtual void FtraceMessageAction(const FtraceMessage*) {}
    virtual ~AbstractMessageReceiver() = default;
};

}  // namespace Engine
