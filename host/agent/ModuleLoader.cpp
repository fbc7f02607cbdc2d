#include "ModuleLoader.h"

#include <Poco/Exception.h>

#include <exception>

#include "framework/Engine.h"
#include "sdk/HostLog.h"

namespace Agent {

namespace {

using CreateModuleFunction = void* (*)();

// Runs a module's Init; module code must not take the agent down with an exception.
bool InitModule(Framework::Module& module, const std::string& path, std::string& error) {
    try {
        const int result = module.Init();
        if (result != 0) {
            error = "module \"" + module.GetModuleName() + "\" from " + path + ": Init failed with " +
                    std::to_string(result);
            return false;
        }
        return true;
    } catch (const Poco::Exception& failure) {
        error = "module \"" + module.GetModuleName() + "\" from " + path + ": Init threw " +
                failure.displayText();
    } catch (const std::exception& failure) {
        error = "module \"" + module.GetModuleName() + "\" from " + path + ": Init threw " + failure.what();
    }
    return false;
}

void UnInitModule(Framework::Module& module, const std::string& path) {
    try {
        module.UnInit();
    } catch (const Poco::Exception& failure) {
        HOST_CONSOLE_LOG_ERROR("module \"" + module.GetModuleName() + "\" from " + path + ": UnInit threw " +
                               failure.displayText());
    } catch (const std::exception& failure) {
        HOST_CONSOLE_LOG_ERROR("module \"" + module.GetModuleName() + "\" from " + path + ": UnInit threw " +
                               failure.what());
    }
}

}  // namespace

ModuleLoader::ModuleLoader(Framework::Engine& engine) : engine_(engine) {}

ModuleLoader::~ModuleLoader() {
    UnloadAll();
}

Framework::Module* ModuleLoader::Load(const std::string& path, std::string& error) {
    Loaded entry;
    entry.path = path;
    std::string cause;
    if (!entry.library.Open(path, cause)) {
        error = "cannot load module " + path + ": " + cause;
        return nullptr;
    }
    auto create = reinterpret_cast<CreateModuleFunction>(entry.library.Find("CreateModule", cause));
    if (create == nullptr) {
        error = "module " + path + " has no CreateModule function, so it is not a module of this agent (" +
                cause + ")";
        return nullptr;
    }
    try {
        entry.module.reset(static_cast<Framework::Module*>(create()));
    } catch (const std::exception& failure) {
        error = "CreateModule of " + path + " threw " + failure.what();
        return nullptr;
    }
    if (!entry.module) {
        error = "CreateModule of " + path + " returned no module";
        return nullptr;
    }
    Framework::Module& module = *entry.module;
    engine_.AddModule(&module);
    if (!InitModule(module, path, error)) {
        UnInitModule(module, path);
        engine_.RemoveModule(&module);
        return nullptr;
    }
    HOST_CONSOLE_LOG_INFO("loaded module \"" + module.GetModuleName() + "\" from " + path);
    loaded_.push_back(std::move(entry));
    return &module;
}

bool ModuleLoader::AnyTakesPolicy(const std::string& id) const {
    for (const Loaded& entry : loaded_) {
        if (entry.module->HasPolicyCallback(id)) {
            return true;
        }
    }
    return false;
}

void ModuleLoader::UnloadAll() {
    while (!loaded_.empty()) {
        Loaded& entry = loaded_.back();
        UnInitModule(*entry.module, entry.path);
        engine_.RemoveModule(entry.module.get());
        HOST_CONSOLE_LOG_INFO("unloaded module \"" + entry.module->GetModuleName() + "\" from " + entry.path);
        loaded_.pop_back();
    }
}

}  // namespace Agent
