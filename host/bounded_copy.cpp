// SPDX-License-Identifier: Apache-2.0

#include "platform/bounded_copy.h"

#include <cerrno>
#include <cstring>

namespace {

// A larger size is a negative number that was converted to unsigned. Then nothing is written, not even the empty
// result.
constexpr size_t max_size = SIZE_MAX / 2;

bool is_writable(const void *destination, size_t size)
{
    return destination != nullptr && size <= max_size;
}

bool overlap(const void *first, const void *second, size_t count)
{
    const auto a = reinterpret_cast<uintptr_t>(first);
    const auto b = reinterpret_cast<uintptr_t>(second);
    return (a > b ? a - b : b - a) < count;
}

uint32_t refusal(const char *destination, size_t size, const char *source)
{
    if (source == nullptr) {
        return EINVAL;
    }
    const size_t length = strnlen(source, size);
    if (length == size) {
        return ERANGE;
    }
    return overlap(destination, source, length + 1) ? EINVAL : 0;
}

uint32_t refusal(const void *destination, size_t size, const void *source, size_t count)
{
    if (source == nullptr) {
        return EINVAL;
    }
    if (count > size) {
        return ERANGE;
    }
    return overlap(destination, source, count) ? EINVAL : 0;
}

} // namespace

uint32_t strcpy_s(char *destination, size_t size, const char *source)
{
    if (!is_writable(destination, size) || size == 0) {
        return EINVAL;
    }
    const uint32_t status = refusal(destination, size, source);
    if (status != 0) {
        destination[0] = '\0';
        return status;
    }
    memcpy(destination, source, strlen(source) + 1);
    return 0;
}

uint32_t memcpy_s(void *destination, size_t size, const void *source, size_t count)
{
    if (!is_writable(destination, size)) {
        return EINVAL;
    }
    const uint32_t status = refusal(destination, size, source, count);
    if (status != 0) {
        memset(destination, 0, size);
        return status;
    }
    memcpy(destination, source, count);
    return 0;
}

uint32_t smemzero_s(void *destination, size_t size)
{
    if (!is_writable(destination, size)) {
        return EINVAL;
    }
    memset(destination, 0, size);
    return 0;
}
