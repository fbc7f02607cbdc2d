#pragma once

#include "PolicyDirectory.h"

namespace Framework {
class Engine;
}

namespace Agent {

class PolicySchemas;

// Delivers the changed policies of the policy directory to the modules through
// the engine, and says in the log what became of each file. A text that is not
// JSON, whose id no module takes, or that breaks the schema of the module
// taking its id, is not delivered: the policy in force stays, and the next
// reload tries the file again.
class PolicyPublisher {
public:
    // `schemas` may be null: then only JSON syntax is checked.
    PolicyPublisher(Framework::Engine& engine, PolicyDirectory& directory,
                    const PolicySchemas* schemas = nullptr);

    // Returns how many policies were delivered.
    int PublishChanges();
    // Policies refused so far (bad JSON, schema problems, no module, refused by the module).
    unsigned long GetRefusedCount() const { return refused_; }

private:
    bool Publish(const PolicyDirectory::Change& change);

    Framework::Engine& engine_;
    PolicyDirectory& directory_;
    const PolicySchemas* schemas_;
    unsigned long refused_ = 0;
};

}  // namespace Agent
