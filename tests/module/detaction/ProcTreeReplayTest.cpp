// A whole behaviour cycle over a /proc tree captured on disk (tests/data/proctree):
// the process table is built from it through the SDK, and the detectors read the
// same tree for CPU times, executables, maps and connections, so the cycle and its
// alert do not depend on what runs on the machine.
#include <gtest/gtest.h>
#include <json/json.h>
#include <unistd.h>

#include <filesystem>
#include <regex>
#include <tuple>

#include "DetactionTestUtil.h"
#include "sdk/ProcessUtils.h"
#include "support/TempDir.h"
#include "support/TestEngine.h"

namespace {

using namespace DetactionTest;
using SDK::ProcessUtils;

struct ProcRootGuard {
    explicit ProcRootGuard(const std::string& root) { ProcessUtils::SetProcRoot(root); }
    ~ProcRootGuard() { ProcessUtils::SetProcRoot("/proc"); }
};

// The record a collector would make of `pid` under the current /proc root.
std::shared_ptr<Engine::ProcsMessage::procInfo> ReadRecord(int pid) {
    std::string exe;
    int ppid = 0;
    long startTime = 0;
    std::string name;
    ProcessUtils::procStatus status;
    if (ProcessUtils::GetProcessExePath(pid, exe) != 0 ||
        ProcessUtils::GetProcessStatInfo(pid, &ppid, &startTime, &name) != 0 ||
        ProcessUtils::GetProcessStatusInfo(pid, status) != 0) {
        return nullptr;
    }
    auto record = TestSupport::MakeProc(pid, exe, ppid);
    std::tie(record->name, record->startTime, record->uid, record->euid, record->gid, record->egid) =
        std::tie(name, startTime, status.uid, status.euid, status.gid, status.egid);
    ProcessUtils::GetProcessCmdline(pid, record->cmdline, 4096);
    return record;
}

TEST(ProcTreeReplay, BehaviourCycleOverACapturedTreeReportsOnlyTheMiner) {
    // Under /tmp, so that the executables the tree names count as /tmp paths.
    const TestSupport::TempDir dir("replay");
    const std::string root = dir.path() + "/proc";
    std::filesystem::copy(std::string(CORVANE_TEST_DATA_DIR) + "/proctree", root,
                          std::filesystem::copy_options::recursive);
    // The pool address is in a library the miner preloads, found through its maps.
    const std::string elfHeader = std::string("\177ELF\2\1\1", 7) + std::string(64, '\0');
    const std::string miner = dir.Write(".cache/miner", elfHeader + "main loop" + std::string(64, '\0'));
    const std::string library = dir.Write(
        ".cache/libhide.so", elfHeader + "connect stratum+tcp://pool.example:3333" + std::string(64, '\0'));
    const int pids[] = {4242, 4243, 4244};
    for (const int pid : pids) {
        const std::string files = root + "/" + std::to_string(pid);
        const auto placed = [&](const std::string& file) {
            return std::regex_replace(TestSupport::ReadText(files + file), std::regex("@DIR@"), dir.path());
        };
        dir.Write("proc/" + std::to_string(pid) + "/maps", placed("/maps"));
        // The exe link, from the target its capture names.
        const std::string target = placed("/exe");
        std::filesystem::remove(files + "/exe");
        std::filesystem::create_symlink(target, files + "/exe");
    }
    const ProcRootGuard guard(root);
    TestSupport::TestEngine env;
    for (const int pid : pids) {
        auto record = ReadRecord(pid);
        ASSERT_NE(record, nullptr) << pid;
        env.procs().Put(record);
    }

    // miner: /tmp, hidden, 90 % of a CPU over its life, a pool address in its library:
    // 1 + 1 + 1 + 3; the deleted one scores 2, sleep 0.
    TaskPtr task =
        MakeInitedTask(TaskSection(R"({"tmp": 1, "hidden": 1, "deleted": 1, "cpu": 1, "strings": 3})",
                                   R"(, "cpu_usage_warn": 5000, "strings": ["stratum+tcp"])"));
    task->Run();
    const auto reports = env.report().GetReports();
    ASSERT_EQ(reports.size(), 1u);
    Json::Value alert;
    ASSERT_TRUE(Json::Reader().parse(reports[0].body, alert));
    ASSERT_EQ(alert["process_info"].size(), 1u) << reports[0].body;
    const Json::Value& entry = alert["process_info"][0];
    EXPECT_EQ(std::make_tuple(entry["process_pid"].asInt(), entry["process_path"].asString(),
                              entry["process_hash"].asString(), entry["process_cmdline"].asString(),
                              entry["rule"].asUInt(), entry["score"].asInt(), entry["dt_str_so"].asString()),
              std::make_tuple(4242, miner, ModuleTest::Sha256OfFile(miner),
                              "./miner --pool stratum+tcp://pool.example:3333",
                              Engine::PROC_TMP | Engine::PROC_HIDDEN | Engine::HIGHCPU | Engine::STRINGS, 6,
                              library));
    EXPECT_EQ(entry["dt_cpu"].asString(), "40.35.0.0");  // 9000: 1,620 s of CPU over 1,800 s
    EXPECT_EQ(entry["dt_strings"].asString().find("stratum+tcp"), 0u) << entry["dt_strings"];
    task->UnInit();
}

}  // namespace
