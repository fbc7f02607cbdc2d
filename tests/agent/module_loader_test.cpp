// Loading module libraries.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "ModuleDirectory.h"
#include "ModuleLoader.h"
#include "framework/Engine.h"
#include "support/FileText.h"

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
    // Libraries that cannot be loaded are met by the agent's command-line test, where they stop it.
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

// The detection module needs the four host libraries only and searches exactly three
// places; no installed binary carries the build machine's source paths.
TEST(ModuleLoader, BinariesNameTheirLibrariesAndNoBuildPaths) {
    const std::string build = std::string(CORVANE_BUILD_DIR) + "/";
    std::string dynamic;
    FILE* readelf = popen(("readelf -d " + build + "module/libproc_det_module.so").c_str(), "r");
    ASSERT_NE(readelf, nullptr);
    for (char line[512]; fgets(line, sizeof(line), readelf) != nullptr;) {
        dynamic += line;
    }
    pclose(readelf);
    for (const char* library :
         {"libframework.so", "libsdk.so", "libprocess_collect_module.so", "libnet_collect_module.so"}) {
        EXPECT_NE(dynamic.find(std::string("[") + library + "]"), std::string::npos) << library;
    }
    EXPECT_EQ(dynamic.find("libprocs_message"), std::string::npos);
    EXPECT_NE(dynamic.find("runpath: [$ORIGIN/:/usr/local/corvane/lib/:/usr/local/corvane/module/]"),
              std::string::npos)
        << dynamic;
#ifndef __SANITIZE_ADDRESS__
    // Sanitizer and coverage builds record source paths in their own metadata; they are never installed.
    for (const char* binary : {"bin/corvane-agent", "lib/libsdk.so", "lib/libframework.so",
                               "module/libproc_det_module.so", "module/libprocess_collect_module.so"}) {
        const std::string text = TestSupport::ReadText(build + binary);
        EXPECT_TRUE(text.find(".gcda") != std::string::npos ||
                    text.find(CORVANE_SOURCE_DIR "/") == std::string::npos)
            << binary;
    }
#endif
}
