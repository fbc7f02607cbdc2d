#pragma once

#include <map>
#include <string>

#include "feature_detaction/ProcDetNetstat.h"

namespace Engine {

// Reaches the per-cycle notes of a detector, so tests can set up what Prepare2
// would note from /proc/net/tcp (remote addresses as watched values).
class ProcDetNetstatTestPeer {
public:
    static std::map<long, unsigned int>& WatchedInodes(ProcDetNetstat& d) { return d.watchedInodes; }
    static std::map<long, unsigned int>& BlackInodes(ProcDetNetstat& d) { return d.blackInodes; }
    static ProcDetNetstat::PeerMap& CurPeers(ProcDetNetstat& d) { return d.curPeers; }
    static ProcDetNetstat::PeerMap& PrevPeers(ProcDetNetstat& d) { return d.prevPeers; }
    static void NoteProcNetTcpLine(ProcDetNetstat& d, const std::string& line) { d.NoteProcNetTcpLine(line); }
};

}  // namespace Engine
