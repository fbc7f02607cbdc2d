#pragma once

#include "PolicyDirectory.h"

namespace Framework {
class Engine;
}

namespace Agent {

class PolicySchemas;

// Delivers the changed policies of the policy directory to the modules through
// the engine, and says in the log what became of each file. A file is refused
// only when it is unusable: it cannot be read (not a regular file, over the size
// bound, not trusted), is not JSON (or nests too deep), is not a JSON object, or
// no module takes its id; the policy in force then stays, and the next reload
// tries the file again. What the module's schema finds in a usable file is
// logged as warnings, and the file is delivered for the module to read as it does.
class PolicyPublisher {
public:
    // `schemas` may be null: then no schema warnings are given.
    PolicyPublisher(Framework::Engine& engine, PolicyDirectory& directory,
                    const PolicySchemas* schemas = nullptr);

    // Returns how many policies were delivered.
    int PublishChanges();
    // Policies refused so far, each reading of an unusable file counted.
    unsigned long GetRefusedCount() const { return refused_; }

private:
    bool Publish(const PolicyDirectory::Change& change);
    void CountRefused(size_t count);

    Framework::Engine& engine_;
    PolicyDirectory& directory_;
    const PolicySchemas* schemas_;
    unsigned long refused_ = 0;
};

}  // namespace Agent
