#pragma once

#include <Poco/DigestEngine.h>
#include <Poco/SHA2Engine.h>

#include <filesystem>
#include <string>

#include "support/AgentRunner.h"
#include "support/FileText.h"
#include "support/WaitFor.h"

// Helpers shared by the detection module's tests.
namespace ModuleTest {

// Lowercase hex SHA-256, computed apart from the agent's own digest code.
inline std::string Sha256Hex(const std::string& data) {
    Poco::SHA2Engine engine(Poco::SHA2Engine::SHA_256);
    engine.update(data);
    return Poco::DigestEngine::digestToHex(engine.digest());
}

inline std::string Sha256OfFile(const std::string& path) {
    return Sha256Hex(TestSupport::ReadText(path));
}

// The resolved path ("" when it cannot be resolved).
inline std::string RealPath(const std::string& path) {
    std::error_code error;
    return std::filesystem::canonical(path, error).string();
}

inline size_t CountOf(const std::string& text, const std::string& needle) {
    size_t count = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
        ++count;
    }
    return count;
}

// Waits until the agent's log holds `more` lines with `needle` beyond those there now.
inline bool WaitForMoreInLog(const TestSupport::AgentRunner& agent, const std::string& needle, size_t more,
                             long timeoutMs = 60000) {
    const size_t seen = CountOf(agent.ReadLog(), needle);
    return TestSupport::WaitFor([&] { return CountOf(agent.ReadLog(), needle) >= seen + more; }, timeoutMs);
}

}  // namespace ModuleTest
