#pragma once

#include <cstddef>
#include <string>

namespace SDK {

class FileUtils {
public:
    // Lowercase hex SHA-256 of a regular file of at most `limit` bytes (limit <= 0: no limit).
    // 0 on success; non-zero when the file is missing, unreadable or larger than the limit.
    static int GetFileSha256(const std::string& path, std::string& hex, long limit);
    // The whole file, at most `limit` bytes (limit <= 0: no limit); a larger file is refused.
    // 0 on success.
    static int ReadFile(const std::string& path, std::string& out, long limit);
    // The whole file, read to its end whatever its stated size (/proc files say 0),
    // into `out` (cleared first, its capacity kept). 0, or the errno of the failure;
    // EFBIG once more than `maxBytes` arrive.
    static int ReadWholeFile(const std::string& path, std::string& out, size_t maxBytes);
};

}  // namespace SDK
