#pragma once

#include <Poco/DigestEngine.h>
#include <Poco/SHA2Engine.h>

#include <filesystem>
#include <string>

#include "support/FileText.h"

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

}  // namespace ModuleTest
