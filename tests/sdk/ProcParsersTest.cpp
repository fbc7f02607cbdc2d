#include <gtest/gtest.h>

#include <tuple>

#include "sdk/ProcParsers.h"
#include "support/FileText.h"

namespace {

std::string Sample(const std::string& name) {
    return TestSupport::ReadText(std::string(CORVANE_TEST_DATA_DIR) + "/proc/" + name);
}

TEST(ProcParsers, StatRejectsTruncatedAndGarbage) {
    const std::string good = Sample("stat_comm_paren");
    SDK::ProcStatFields stat;
    stat.pid = 77;
    // Cut inside comm, just after it, and before the start time (field 22).
    for (const std::size_t cut : {std::size_t{8}, good.find(" S ") + 1, good.find(" 53584")}) {
        EXPECT_FALSE(SDK::ParseStat(good.substr(0, cut), stat)) << "cut at " << cut;
    }
    for (const char* garbage : {"", ")", "(", "12 x S 1", "abc (x) S 1 2 3", "(x) S 1 2 3 4 5 6 7 8 9",
                                "5 (x) S -1 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 10",
                                "5 (x) SS 1 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 10",
                                "5 (x) S one 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 10"}) {
        EXPECT_FALSE(SDK::ParseStat(garbage, stat)) << garbage;
    }
    EXPECT_EQ(stat.pid, 77) << "a failed parse must leave the output alone";
    // A stat ending right after the start time is complete enough.
    ASSERT_TRUE(SDK::ParseStat("5 (x) R 1 1 1 0 -1 0 0 0 0 0 7 3 0 0 20 0 1 0 10", stat));
    EXPECT_EQ(stat.utime + stat.stime, 10u);
}

TEST(ProcParsers, StatusIdentitiesAndCapabilities) {
    SDK::ProcStatusFields status;
    const std::string dropped = Sample("status_dropped");
    ASSERT_TRUE(SDK::ParseStatus(dropped, status));
    EXPECT_EQ(status.name, "python3");
    EXPECT_EQ(std::make_tuple(status.ppid, status.uid, status.euid, status.suid, status.fsuid),
              std::make_tuple(5286, 1000u, 1001u, 1002u, 1001u));
    EXPECT_EQ(std::make_tuple(status.gid, status.egid, status.sgid, status.fsgid),
              std::make_tuple(65534u, 65533u, 65532u, 65533u));
    EXPECT_EQ(std::make_tuple(status.capPrm, status.capEff, status.capBnd),
              std::make_tuple(uint64_t{0}, uint64_t{0}, uint64_t{0x1fffeffffff}));
}

TEST(ProcParsers, StatusIncompleteOrMalformedLines) {
    const std::string good = Sample("status_dropped");
    // Truncated before the Gid line: the user ids are read, the group ids stay unknown.
    SDK::ProcStatusFields status;
    EXPECT_FALSE(SDK::ParseStatus(good.substr(0, good.find("Gid:")), status));
    EXPECT_TRUE(status.hasUid);
    EXPECT_EQ(status.egid, 0xFFFFFFFFu);
    // An id line is read whole or not at all.
    for (const char* text :
         {"Name:\tx\nUid:\t1\t2\t3\nGid:\t0\t0\t0\t0\n", "Name:\tx\nUid:\t1\t2\t3\tz\nGid:\t0\t0\t0\t0\n",
          "Name:\tx\nUid:\t1\t2\t3\t99999999999\nGid:\t0\t0\t0\t0\n",
          "Name:\tx\nUid:\t1\t2\t3\t4\t5\nGid:\t0\t0\t0\t0\n", "garbage\n\n\x01"}) {
        status = SDK::ProcStatusFields();
        EXPECT_FALSE(SDK::ParseStatus(text, status)) << text;
        EXPECT_EQ(status.uid, 0xFFFFFFFFu) << text;
    }
    // Unreadable capability sets stay 0 without failing the identities.
    ASSERT_TRUE(SDK::ParseStatus(
        "Name:\tx\nUid:\t5\t5\t5\t5\nGid:\t6\t6\t6\t6\nCapEff:\tzz\nCapBnd:\t1ffffffffffffffff\n", status));
    EXPECT_EQ(status.uid, 5u);
    EXPECT_FALSE(status.hasCapEff);
    EXPECT_EQ(status.capEff + status.capBnd, 0u);
}

// Socket links and boot times are read successfully on live and fake trees
// (NetstatDetectorTest, ProcTableScannerTest); here, the look-alikes they refuse.
TEST(ProcParsers, SmallTexts) {
    long inode = 0;
    for (const char* other :
         {"pipe:[5]", "socket:[]", "socket:[12", "socket:[-3]", "/dev/null", "socket:[1x]"}) {
        EXPECT_FALSE(SDK::ParseSocketLink(other, inode)) << other;
    }

    long long uptimeMs = 0;
    EXPECT_TRUE(SDK::ParseUptime("1234.56 2000.00\n", uptimeMs));
    EXPECT_EQ(uptimeMs, 1234560);
    EXPECT_FALSE(SDK::ParseUptime("abc 1", uptimeMs));

    int64_t bootTime = 0;
    EXPECT_FALSE(SDK::ParseBootTime("cpu  1 2 3\nxbtime 5\nbtime\n", bootTime));
}

// /proc/PID/cgroup as each runtime writes it (cgroup v1 and v2, cgroupfs and systemd
// drivers): the runtime and id, and nothing for a host process or a look-alike.
TEST(ProcParsers, CgroupNamesTheContainer) {
    const std::string id = "3f2b9c0e5a1d4c7b8e6f0a9b2c3d4e5f60718293a4b5c6d7e8f9a0b1c2d3e4f5";
    const struct {
        std::string text;
        const char* runtime;
        std::string id;
    } cases[] = {
        {"0::/system.slice/docker-" + id + ".scope\n", "docker", id},
        {"12:pids:/docker/" + id + "\n11:memory:/docker/" + id + "\n0::/\n", "docker", id},
        {"0::/kubepods.slice/kubepods-burstable.slice/kubepods-burstable-pod0a1b.slice/cri-containerd-" + id +
             ".scope\n",
         "containerd", id},
        {"0::/kubepods.slice/kubepods-besteffort.slice/kubepods-besteffort-pod9.slice/crio-" + id +
             ".scope\n",
         "cri-o", id},
        {"5:cpu,cpuacct:/kubepods/burstable/pod7c1d/" + id + "\n", "kubernetes", id},
        {"0::/user.slice/user-1000.slice/user@1000.service/user.slice/libpod-" + id + ".scope/container\n",
         "podman", id},
        {"0::/machine.slice/machine-debian\\x2d12.scope/payload/system.slice/cron.service\n",
         "systemd-nspawn", "debian-12"},
        {"0::/lxc.payload.web1/system.slice/nginx.service\n", "lxc", "web1"},
        {"0::/init.scope\n", nullptr, ""},
        {"0::/system.slice/libpod-conmon-" + id + ".scope\n", nullptr, ""},
        {"0::/system.slice/docker-" + id.substr(1) + ".scope\n", nullptr, ""},
        {"garbage without colons\n", nullptr, ""},
    };
    for (const auto& c : cases) {
        std::string runtime;
        std::string found;
        EXPECT_EQ(SDK::ParseCgroupContainer(c.text, runtime, found), c.runtime != nullptr) << c.text;
        EXPECT_EQ(runtime, c.runtime != nullptr ? c.runtime : "") << c.text;
        EXPECT_EQ(found, c.id) << c.text;
    }
    unsigned long inode = 0;
    EXPECT_TRUE(SDK::ParseNamespaceLink("pid:[4026531836]", inode));
    EXPECT_EQ(inode, 4026531836UL);
    EXPECT_FALSE(SDK::ParseNamespaceLink("pid:[]", inode));
    EXPECT_FALSE(SDK::ParseNamespaceLink("/dev/null", inode));
}

}  // namespace
