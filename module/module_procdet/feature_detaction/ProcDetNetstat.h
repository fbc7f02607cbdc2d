#pragma once

#include <Poco/Logger.h>

#include <map>
#include <set>
#include <string>

#include "feature_detaction/ProcDetBase.h"

namespace Engine {

class ProcDetNetstatTestPeer;

// Flags processes connected to blacklisted IPv4 addresses (CONNECT_BIP) and
// processes that keep many connections to the remote ports 22, 139 and 445 from
// one cycle to the next (LOGIN_OTHERS).
//
// The blacklist is the union of the policy's addresses and an address file
// (conf/pupbip.dat under the installation path) that is downloaded on first need
// and accepted only when its SHA-256 matches the policy's digest. Addresses are
// kept as inet_addr gives them (network byte order in 32 bits, widened to long),
// which is also how /proc/net/tcp and the collector print them.
class ProcDetNetstat : public ProcDetBase {
public:
    using PeerMap = std::map<int, std::set<unsigned int>>;

    ProcDetNetstat();
    ~ProcDetNetstat() override;

    std::string GetName() override;
    // Notes the blacklisted and watched connections of the collector's table.
    bool Prepare() override;
    bool CheckProcess(ProcRecord proc, unsigned int& flags, NumDetails& numDetails,
                      StrDetails& strDetails) override;
    void Finish() override;
    // Fills the same notes from /proc/net/tcp, keeping remote addresses (not
    // ports) for watched connections. Not used by the manager.
    virtual bool Prepare2();

    // Adds the value of a watched socket to the pid's set of this cycle and counts
    // it when the pid's set of the previous cycle holds it. False only when no
    // entry could be made for the pid.
    bool UpdateMaps(int pid, long inode, PeerMap::iterator& curPidEntry,
                    const std::set<unsigned int>* prevSet, unsigned long& repeatCount);

    // Blacklist sources. SetBlackipLib takes effect only while the address file
    // is not loaded yet: once loaded it stays for the object's life.
    void SetBlackipLib(std::string url, std::string hash);
    void SetBlackip(const std::set<long>& ips);
    bool IsBlackIp(long ip);
    // Loads the address file, downloading it first when the local copy is
    // missing or does not match the digest.
    bool CheckAndUpdateLib();
    // Adds the addresses of the file at `path` to `out` when its SHA-256 is `hash`.
    bool LoadLib(const std::string& path, const std::string& hash, std::set<long>& out) const;

    // Test-only: forgets the last download attempt, so that the next lookup may
    // try again at once. The clock is shared by all detectors of the process.
    static void ResetRetryClockForTest();

private:
    friend class ProcDetNetstatTestPeer;

    // Notes one data line of /proc/net/tcp; malformed lines are ignored.
    void NoteProcNetTcpLine(const std::string& line);
    Poco::Logger* Logger();

    std::map<long, unsigned int> blackInodes;    // inode -> remote address
    std::map<long, unsigned int> watchedInodes;  // inode -> remote port (Prepare) or address (Prepare2)
    PeerMap curPeers;
    PeerMap prevPeers;

    std::set<long> policyBlackIps;
    std::string libPath;
    std::string libUrl;
    std::string libHash;
    std::set<long> libBlackIps;

    Poco::Logger* logger = nullptr;
};

}  // namespace Engine
