#include "feature_detroot/ProcDetRootAlarm.h"

#include "ProcDetLog.h"
#include "sdk/CryptoCodeUtils.h"
#include "sdk/JsonUtils.h"
#include "sdk/ProcessUtils.h"
#include "sdk/TimeUtils.h"

namespace Engine {

namespace {

// Log lines name the task, whichever of its classes runs.
constexpr const char* kProcDetSource = "module/module_procdet/feature_detroot/ProcDetRootFullTask";
constexpr long kHashSizeLimit = 10485760;

// Login session facts of a process; empty when it has no session we can read.
SDK::ProcessUtils::SessionInfo LookUpSession(int pid) {
    std::string sessionId;
    SDK::ProcessUtils::SessionInfo session;
    if (SDK::ProcessUtils::GetProcessSessionId(pid, sessionId) != 0 ||
        SDK::ProcessUtils::GetSessionInfo(sessionId, session) != 0) {
        return SDK::ProcessUtils::SessionInfo();
    }
    return session;
}

}  // namespace

void ProcDetRootAlarm::GenerateAlertHeader(int type, Json::Value& alert) {
    alert["event_id"] = SDK::CryptoCodeUtils::GenerateUUID();
    alert["event_classid"] = "procdet_0002";
    alert["event_name"] = "detroot";
    alert["occur_time"] = static_cast<Json::Int64>(SDK::TimeUtils::GetCurrentTimestampS());
    alert["event_category"] = 3000;
    alert["event_type"] = 3003;
    alert["severity"] = 3;
    alert["event_count"] = 1;
    alert["attack_phase"] = 4;
    alert["attack_tag"] = 4;
    alert["confidence"] = 70;
    alert["detect_module"] = "proc_det_module";
    alert["alarm_type"] = static_cast<Json::Int64>(type);
}

bool ProcDetRootAlarm::Build(const ProcInfoPtr& process, const ProcInfoPtr& parent, int type,
                             std::string& text) {
    if (!process) {
        return false;
    }
    // One alarm per process identity (start time and program), whatever it does next.
    const std::string key = std::to_string(static_cast<long>(process->startTime)) + process->exePath;
    if (alarmedKeys_.count(key) != 0) {
        PROCDET_INFO(logger_, "replicate message by %s", key);
        return false;
    }
    alarmedKeys_.insert(key);

    Json::Value alert(Json::objectValue);
    GenerateAlertHeader(type, alert);

    const ProcsMessage::procInfo noParent;
    const ProcsMessage::procInfo& up = parent ? *parent : noParent;
    Json::Value entry(Json::objectValue);
    entry["process_name"] = process->name;
    entry["process_pid"] = process->pid;
    entry["process_uid"] = process->uid;
    entry["process_euid"] = process->euid;
    entry["process_gid"] = process->gid;
    entry["process_egid"] = process->egid;
    entry["process_path"] = process->exePath;
    entry["process_cmdline"] = process->cmdline;
    entry["parent_process_name"] = up.name;
    entry["parent_process_pid"] = up.pid;
    entry["parent_process_uid"] = up.uid;
    entry["parent_process_euid"] = up.euid;
    entry["parent_process_gid"] = up.gid;
    entry["parent_process_egid"] = up.egid;
    entry["parent_process_path"] = up.exePath;
    entry["parent_process_cmdline"] = up.cmdline;

    const SDK::ProcessUtils::SessionInfo session = LookUpSession(process->pid);
    entry["host_name"] = session.host;
    entry["login_time"] = static_cast<Json::Int64>(session.loginTime) * 1000;

    std::string userName;
    SDK::ProcessUtils::GetProcessUser(process->uid, userName);
    entry["user_name"] = userName;

    std::string hash;
    bool fromLink = false;
    SDK::ProcessUtils::GetProcessFileSha256(process->pid, process->exePath, hash, fromLink, kHashSizeLimit);
    entry["process_hash"] = hash;

    alert["process_info"].append(entry);

    text = SDK::JsonUtils::JsonToString(alert);
    return true;
}

}  // namespace Engine
