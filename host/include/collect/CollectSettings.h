#pragma once

namespace Engine {

// The agent hands its collector settings to the collect modules as policy texts
// {"refresh_seconds": N, ...} of these ids and features.
inline constexpr const char* kProcsCollectSettingsId = "procs_collect";
inline constexpr const char* kProcsCollectFeature = "procs_collect_feature";
inline constexpr const char* kNetCollectSettingsId = "net_collect";
inline constexpr const char* kNetCollectFeature = "net_collect_feature";
inline constexpr const char* kRefreshSecondsKey = "refresh_seconds";
// procs_collect only: the MiB of process events held back for each slow subscriber.
inline constexpr const char* kEventBacklogMibKey = "event_backlog_mib";

}  // namespace Engine
