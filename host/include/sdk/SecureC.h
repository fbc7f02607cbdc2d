#pragma once

#include <stddef.h>

// Bounded copies and formatting. Both return without writing past `destMax`.
extern "C" {
// Copies `count` bytes; 0 on success, non-zero (nothing copied) when dest or src is
// null, count > destMax, or the areas overlap.
int memcpy_s(void* dest, size_t destMax, const void* src, size_t count);
// Formats into dest, always NUL-terminated; returns the number of characters written,
// or -1 (dest set to "") when the result does not fit or the arguments are invalid.
int sprintf_s(char* dest, size_t destMax, const char* format, ...) __attribute__((format(printf, 3, 4)));
}
