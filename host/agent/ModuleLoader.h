#pragma once

#include <memory>
#include <string>
#include <vector>

#include "LibraryHandle.h"
#include "framework/Module.h"

namespace Framework {
class Engine;
}

namespace Agent {

// Loads plug-in module libraries and owns the modules they create. A module
// library exports `extern "C" void* CreateModule()` returning a new
// Framework::Module; the loader adds it to the engine and calls Init. Unloading
// runs in reverse order: UnInit, removal from the engine, deletion, and only
// then the library handle goes.
class ModuleLoader {
public:
    explicit ModuleLoader(Framework::Engine& engine);
    ~ModuleLoader();

    ModuleLoader(const ModuleLoader&) = delete;
    ModuleLoader& operator=(const ModuleLoader&) = delete;

    // The module, or null with a sentence naming the file and the cause.
    Framework::Module* Load(const std::string& path, std::string& error);
    void UnloadAll();

    size_t GetCount() const { return loaded_.size(); }
    // Whether a loaded module registered a policy callback for `id`.
    bool AnyTakesPolicy(const std::string& id) const;

private:
    struct Loaded {
        std::string path;
        LibraryHandle library;  // declared first: destroyed after the module
        std::unique_ptr<Framework::Module> module;
    };

    Framework::Engine& engine_;
    std::vector<Loaded> loaded_;
};

}  // namespace Agent
