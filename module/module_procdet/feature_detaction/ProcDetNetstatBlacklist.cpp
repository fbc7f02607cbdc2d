#include <arpa/inet.h>
#include <sys/stat.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "ProcDetLog.h"
#include "feature_detaction/ProcDetNetstat.h"
#include "sdk/FileUtils.h"
#include "sdk/HttpUtils.h"
#include "sdk/StrUtils.h"

namespace Engine {

namespace {

// Log lines and CPU governor calls name the class, not this file.
constexpr const char* kProcDetSource = "module/module_procdet/feature_detaction/ProcDetNetstat";

}  // namespace

namespace {

// The address file is refused above this size.
constexpr long kLibMaxBytes = 0xA00000;
// While the address file is missing, downloads are tried at most this often.
constexpr long kRetrySeconds = 300;
constexpr int kHttpOk = 200;

// Last download attempt, shared by every detector of the process so that
// re-created detectors do not hammer the server.
long g_lastLibAttempt = 0;

}  // namespace

void ProcDetNetstat::ResetRetryClockForTest() {
    g_lastLibAttempt = 0;
}

void ProcDetNetstat::SetBlackipLib(std::string url, std::string hash) {
    libUrl = std::move(url);
    libHash = std::move(hash);
}

void ProcDetNetstat::SetBlackip(const std::set<long>& ips) {
    if (&ips != &policyBlackIps) {
        policyBlackIps = ips;
    }
}

bool ProcDetNetstat::IsBlackIp(long ip) {
    if (policyBlackIps.count(ip) != 0) {
        return true;
    }
    if (!libBlackIps.empty()) {
        return libBlackIps.count(ip) != 0;
    }
    if (libUrl.empty() || libHash.empty()) {
        return false;
    }
    const long now = static_cast<long>(time(nullptr));
    // Absolute distance: a clock set back must not block retries for long.
    const long sinceLast = now > g_lastLibAttempt ? now - g_lastLibAttempt : g_lastLibAttempt - now;
    if (sinceLast < kRetrySeconds) {
        return false;
    }
    g_lastLibAttempt = now;
    if (!CheckAndUpdateLib()) {
        return false;
    }
    return libBlackIps.count(ip) != 0;
}

bool ProcDetNetstat::CheckAndUpdateLib() {
    if (LoadLib(libPath, libHash, libBlackIps)) {
        return true;
    }
    const int status = SDK::HttpUtils::GetInstance()->Download(libUrl, libPath, "", "", "");
    if (status == kHttpOk) {
        return LoadLib(libPath, libHash, libBlackIps);
    }
    PROCDET_ERROR(Logger(), "download failed. [%s] [%s] [%d]", libUrl, libPath, status);
    return false;
}

bool ProcDetNetstat::LoadLib(const std::string& path, const std::string& hash, std::set<long>& out) const {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
        return false;
    }
    std::string digest;
    if (SDK::FileUtils::GetFileSha256(path, digest, kLibMaxBytes) != 0) {
        return false;
    }
    // Exact text comparison: the policy must send the digest as the host writes it.
    if (digest != hash) {
        return false;
    }
    std::string content;
    if (SDK::FileUtils::ReadFile(path, content, kLibMaxBytes) != 0) {
        return false;
    }
    std::vector<std::string> lines;
    SDK::StrUtils::EasySplit(content, lines, "\n");
    for (std::string& line : lines) {
        SDK::StrUtils::Trim(line);
        if (line.empty()) {
            continue;
        }
        // inet_addr's error value is also 255.255.255.255, which thus can never be listed.
        const in_addr_t addr = inet_addr(line.c_str());
        if (addr == INADDR_NONE) {
            continue;
        }
        out.insert(static_cast<long>(static_cast<uint32_t>(addr)));
    }
    return true;
}

}  // namespace Engine
