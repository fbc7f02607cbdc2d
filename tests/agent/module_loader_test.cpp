// Loading module libraries.
#include <gtest/gtest.h>

#include <string>

#include "ModuleDirectory.h"
#include "ModuleLoader.h"
#include "framework/Engine.h"

namespace {

const std::string kModules = std::string(CORVANE_BUILD_DIR) + "/tests/modules/";

}  // namespace

TEST(ModuleLoader, LoadsARealModuleAndUnloadsIt) {
    Framework::Engine engine;
    Agent::ModuleLoader loader(engine);
    std::string error;

    const std::string good = kModules + "libagent_test_module.so";
    Framework::Module* module = loader.Load(good, error);
    ASSERT_NE(module, nullptr) << error;
    EXPECT_EQ(module->GetModuleName(), "agent_test_module");
    EXPECT_TRUE(loader.AnyTakesPolicy("90001"));
    EXPECT_FALSE(loader.AnyTakesPolicy("host"));
    EXPECT_EQ(engine.DeliverPolicy("90001", "agent_test_feature", "{\"enabled\":false}"), 0);

    // Libraries that cannot be loaded are met by the agent's end-to-end run, where they stop it.
    EXPECT_EQ(loader.Load(kModules + "libnot_there.so", error), nullptr);
    EXPECT_EQ(loader.GetCount(), 1u);
    loader.UnloadAll();
    EXPECT_EQ(engine.DeliverPolicy("90001", "agent_test_feature", "{\"enabled\":false}"), -2);
}

TEST(ModuleDirectory, CollectModulesLoadFirstAndOnlyLibrariesCount) {
    EXPECT_EQ(
        Agent::ModuleDirectory::Order({"libzeta.so", "libnet_collect_module.so", "README", "libalpha.so",
                                       "libprocess_collect_module.so", "lib.so", "libx.so.1"}),
        (std::vector<std::string>{"libprocess_collect_module.so", "libnet_collect_module.so", "libalpha.so",
                                  "libzeta.so"}));
}
