#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>

#include "DetactionTestUtil.h"
#include "feature_detaction/DetectorProc.h"
#include "feature_detaction/ProcDetCmdline.h"
#include "feature_detaction/ProcDetCpu.h"
#include "sdk/ProcessUtils.h"
#include "support/FakeProcsFullTask.h"
#include "support/TempDir.h"

using namespace DetactionTest;
using TestSupport::MakeProc;

namespace {

unsigned int Check(Engine::ProcDetBase& detector, const Engine::ProcRecord& proc) {
    unsigned int flags = 0;
    Engine::NumDetails numDetails;
    Engine::StrDetails strDetails;
    EXPECT_TRUE(detector.CheckProcess(proc, flags, numDetails, strDetails));
    return flags;
}

TEST(DetectorsTest, LocationFlags) {
    Engine::DetectorProc detector;
    const std::map<std::string, unsigned int> cases = {
        {"/tmp/x", 0x001},
        {"/var/tmp/x", 0x001},
        {"/var/tmpfoo/x", 0x001},
        {"/tmpx/y", 0},
        {"/usr/tmp/x", 0},
        {"/home/u/.cache/a", 0x002},
        {"/usr/bin/a (deleted)", 0x004},
        {"/usr/bin/a (deleted) x", 0},
        {"/tmp/.x (deleted)", 0x007},
        {"", 0},
    };
    for (const auto& [path, expected] : cases) {
        EXPECT_EQ(Check(detector, MakeProc(1, path)), expected) << path;
    }
}

TEST(DetectorsTest, CommandLineNamesAnotherProgram) {
    using Engine::ProcDetCmdline;
    EXPECT_FALSE(ProcDetCmdline::IsDisguised("/usr/bin/tool3", "tool3 x.conf"));
    EXPECT_FALSE(ProcDetCmdline::IsDisguised("/usr/bin/tool3", "/usr/bin/tool3.6 x.conf"));
    EXPECT_FALSE(ProcDetCmdline::IsDisguised("/usr/sbin/sshd", ""));
    EXPECT_TRUE(ProcDetCmdline::IsDisguised("/usr/sbin/sshd", "[kworker/0:1]"));
    // An absolute argv0 is resolved and compared with the executable.
    EXPECT_TRUE(ProcDetCmdline::IsDisguised("/usr/sbin/sshd", "/no/such/file x"));
    const std::string link = "/tmp/detaction-cmdline-" + std::to_string(getpid());
    std::filesystem::remove(link);
    std::filesystem::create_symlink(RealPath("/bin/sleep"), link);
    EXPECT_FALSE(ProcDetCmdline::IsDisguised(RealPath("/bin/sleep"), link + " 30"));
    // The resolved path's end counts too: a shorter one never matches a longer executable.
    EXPECT_TRUE(ProcDetCmdline::IsDisguised(RealPath("/bin/sleep") + "er", link + " 30"));
    std::filesystem::remove(link);
    EXPECT_TRUE(ProcDetCmdline::IsDisguised("/usr/bin/a (deleted)", "/usr/bin/sleep 30"));

    // On a live process the command line comes from /proc.
    Child child({"/bin/sleep", "30"});
    ProcDetCmdline detector;
    EXPECT_EQ(Check(detector, MakeProc(child.pid(), "/usr/sbin/sshd")), Engine::CMDLINE);
    EXPECT_EQ(Check(detector, MakeProc(child.pid(), "/usr/bin/sleep")), 0u);
}

// A busy process that took the pid of an idle one between two cycles is measured
// from its own first sample (the average over its life, user and system time), not
// compared with the calculator of the process before it. A process that is gone is
// not kept, and one not checked in a cycle is forgotten at its end.
TEST(DetectorsTest, CpuOfAReusedPidIsMeasuredAfreshAndGonePidsAreForgotten) {
    const TestSupport::TempDir root("cpu_proc");
    const long hz = sysconf(_SC_CLK_TCK);
    auto writeStat = [&](long startSeconds, long cpuSeconds) {
        // Half user, half system time: either alone stays under the threshold.
        root.Write("20/stat", "20 (job) R 1 20 20 0 -1 0 0 0 0 0 " + std::to_string(cpuSeconds * hz / 2) +
                                  " " + std::to_string(cpuSeconds * hz - cpuSeconds * hz / 2) +
                                  " 0 0 20 0 1 0 " + std::to_string(startSeconds * hz));
    };
    root.Write("uptime", "100.00 150.00\n");
    SDK::ProcessUtils::SetProcRoot(root.path());
    Engine::ProcDetCpu detector;
    detector.SetHighCpuThreshold(4000);
    auto cycle = [&](long startSeconds) {
        auto record = MakeProc(20, "/opt/job");
        record->startTime = startSeconds * hz;
        detector.Prepare();
        const unsigned int flags = Check(detector, record);
        detector.Finish();
        return flags;
    };
    writeStat(50, 1);  // 1 s of CPU over 50 s
    EXPECT_EQ(cycle(50), 0u);
    writeStat(60, 30);  // 30 s over 40 s
    EXPECT_EQ(cycle(60), Engine::HIGHCPU);
    WaitNextSecond();  // cycles are told apart by their second
    detector.Prepare();
    EXPECT_EQ(Check(detector, MakeProc(21, "/opt/gone")), 0u);
    EXPECT_EQ(detector.GetTrackedCount(), 1u);
    detector.Finish();
    EXPECT_EQ(detector.GetTrackedCount(), 0u);
    SDK::ProcessUtils::SetProcRoot("/proc");
}

}  // namespace
