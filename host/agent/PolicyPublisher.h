#pragma once

#include "PolicyDirectory.h"

namespace Framework {
class Engine;
}

namespace Agent {

// Delivers the changed policies of the policy directory to the modules through
// the engine, and says in the log what became of each file. A text that is not
// JSON, or whose id no module takes, is not delivered: the policy in force
// stays, and the next reload tries the file again.
class PolicyPublisher {
public:
    PolicyPublisher(Framework::Engine& engine, PolicyDirectory& directory);

    // Returns how many policies were delivered.
    int PublishChanges();

private:
    bool Publish(const PolicyDirectory::Change& change);

    Framework::Engine& engine_;
    PolicyDirectory& directory_;
};

}  // namespace Agent
