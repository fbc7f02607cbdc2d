#pragma once

#include <string>

namespace SDK {

class CryptoCodeUtils {
public:
    // A random (version 4) UUID in its usual text form.
    static std::string GenerateUUID();
};

}  // namespace SDK
