#include "sdk/CryptoCodeUtils.h"

#include <Poco/Exception.h>
#include <Poco/UUIDGenerator.h>

#include <exception>

namespace SDK {

std::string CryptoCodeUtils::GenerateUUID() {
    try {
        return Poco::UUIDGenerator::defaultGenerator().createRandom().toString();
    } catch (const Poco::Exception&) {
    } catch (const std::exception&) {
    }
    // Only a broken random source gets here; callers treat an empty id as a failure.
    return std::string();
}

}  // namespace SDK
