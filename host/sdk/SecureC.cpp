#include "sdk/SecureC.h"

#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

extern "C" {

int memcpy_s(void* dest, size_t destMax, const void* src, size_t count) {
    if (dest == nullptr || src == nullptr || count > destMax) {
        return -1;
    }
    const uintptr_t d = reinterpret_cast<uintptr_t>(dest);
    const uintptr_t s = reinterpret_cast<uintptr_t>(src);
    if ((d < s && d + count > s) || (s < d && s + count > d)) {
        return -1;
    }
    if (count > 0) {
        memcpy(dest, src, count);
    }
    return 0;
}

int sprintf_s(char* dest, size_t destMax, const char* format, ...) {
    if (dest == nullptr || destMax == 0) {
        return -1;
    }
    if (format == nullptr) {
        dest[0] = '\0';
        return -1;
    }
    va_list args;
    va_start(args, format);
    const int written = vsnprintf(dest, destMax, format, args);
    va_end(args);
    if (written < 0 || static_cast<size_t>(written) >= destMax) {
        // A truncated text is worse than none: callers build paths and keys with it.
        dest[0] = '\0';
        return -1;
    }
    return written;
}

}  // extern "C"
