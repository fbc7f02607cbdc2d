#include <sys/stat.h>

#include <new>

#include "ProcDetLog.h"
#include "ProcDetMetrics.h"
#include "feature_detaction/ProcDetActionFullTask.h"
#include "framework/DataMessage.h"
#include "sdk/CryptoCodeUtils.h"
#include "sdk/FileUtils.h"
#include "sdk/JsonUtils.h"
#include "sdk/ProcessUtils.h"
#include "sdk/SecureC.h"
#include "sdk/TimeUtils.h"

namespace Engine {

namespace {

// Log lines and CPU governor calls name the class, not this file.
constexpr const char* kProcDetSource = "module/module_procdet/feature_detaction/ProcDetActionFullTask";

}  // namespace

namespace {

constexpr const char* kReportTaskName = "data_comm_report_task";
constexpr const char* kAlertDataType = "2";
constexpr long kHashLimit = 10485760;
constexpr int kCmdlineLimit = 4096;

}  // namespace

void ProcDetActionFullTask::DetActionNotify(const std::map<int, ProcCheckInfo>& results, void* /*context*/) {
    Json::Value alert;
    GenerateCommonAlert(alert);
    if (results.empty()) {
        alert["process_info"] = Json::Value(Json::arrayValue);
    }
    int reported = 0;
    for (const auto& [pid, info] : results) {
        const int score = static_cast<int>(CalcScore(static_cast<int>(info.flags)));
        if (score < reportScore_) {
            PROCDET_DEBUG(logger_, "DONT REPORT. pid:%d %s s:%d<%d", pid, info.filePath, score, reportScore_);
            continue;
        }
        if (!SDK::ProcessUtils::IsProcessAlive(static_cast<unsigned int>(pid))) {
            PROCDET_DEBUG(logger_, "NOT_EXISTS. Maybe dead already. pid:%d %s", pid, info.filePath);
            continue;
        }
        Json::Value item;
        PrepareProcessInfo(pid, info, score, item);
        alert["process_info"].append(item);
        ++reported;
        PROCDET_DEBUG(logger_, "REPORT. pid:%d %s s:%d>=%d", pid, info.filePath, score, reportScore_);
    }
    if (reported == 0) {
        return;
    }
    const std::string text = SDK::JsonUtils::JsonToString(alert);
    PROCDET_DEBUG(logger_, "REPORT. msg:%s ", text);
    auto* message = new (std::nothrow) Framework::DataMessage(kAlertDataType, text);
    if (message != nullptr) {
        SendDirectMsg(kReportTaskName, message);
        ProcDetMetrics::CountAlertSent("procdet_0001");
    }
}

void ProcDetActionFullTask::PrepareProcessInfo(int pid, const ProcCheckInfo& info, int score,
                                               Json::Value& item) {
    int ppid = 0;
    SDK::ProcessUtils::GetProcessStatInfo(pid, &ppid, nullptr, nullptr);
    std::string parentPath;
    SDK::ProcessUtils::GetProcessExePath(static_cast<unsigned int>(ppid), parentPath);

    // A deleted executable can still be read through the process's own link; the
    // alert names that link as "/proc/PID/exe" wherever /proc is read from.
    const bool deleted = (info.flags & PROC_DELETED) != 0;
    const std::string path = deleted ? SDK::ProcessUtils::GetProcessFilePath(pid, "exe") : info.filePath;
    unsigned int mode = 0;
    struct stat st {};
    if (stat(path.c_str(), &st) == 0) {
        mode = static_cast<unsigned int>(st.st_mode) & 0777u;
    }
    std::string hash;
    SDK::FileUtils::GetFileSha256(path, hash, kHashLimit);
    std::string cmdline;
    SDK::ProcessUtils::GetProcessCmdline(pid, cmdline, kCmdlineLimit);

    item["process_pid"] = pid;
    item["process_path"] = deleted ? "/proc/" + std::to_string(pid) + "/exe" : info.filePath;
    item["process_hash"] = hash;
    item["process_cmdline"] = cmdline;
    item["parent_process_pid"] = ppid;
    item["parent_process_path"] = parentPath;
    item["rule"] = static_cast<int>(info.flags);
    item["mode"] = mode;
    item["score"] = score;
    // Every numeric detail is rendered as a dotted address, whatever it measures:
    // consumers of this event expect that form.
    for (const auto& [key, value] : info.numDetails) {
        std::string text;
        ConvertIntIpToString(value, text);
        item[key] = text;
    }
    for (const auto& [key, value] : info.strDetails) {
        item[key] = value;
    }
}

void ProcDetActionFullTask::GenerateCommonAlert(Json::Value& alert) {
    alert["event_id"] = SDK::CryptoCodeUtils::GenerateUUID();
    alert["event_classid"] = "procdet_0001";
    alert["event_name"] = "detaction";
    alert["occur_time"] = static_cast<Json::Int64>(SDK::TimeUtils::GetCurrentTimestampS());
    alert["event_category"] = 3000;
    alert["event_type"] = 3007;
    alert["severity"] = 2;
    alert["event_count"] = 1;
    alert["attack_phase"] = 6;
    alert["attack_tag"] = 4;
    alert["confidence"] = 70;
    alert["detect_module"] = "proc_det_module";
}

void ProcDetActionFullTask::ConvertIntIpToString(long address, std::string& text) {
    char buffer[32] = {0};
    const int written = sprintf_s(buffer, sizeof(buffer), "%ld.%ld.%ld.%ld", address & 0xff,
                                  (address >> 8) & 0xff, (address >> 16) & 0xff, (address >> 24) & 0xff);
    if (written <= 0) {
        PROCDET_ERROR(logger_, "sprintf_s error");
        return;
    }
    text = buffer;
}

}  // namespace Engine
