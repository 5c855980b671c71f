// SPDX-License-Identifier: Apache-2.0

#include "cli/text_buffer.h"

#include <utility>

namespace l2fibctl {

namespace {

constexpr size_t min_capacity = 256; // of a short row

} // namespace

void text_buffer::grow(size_t count)
{
    const size_t capacity = std::max({min_capacity, 2 * capacity_, size_ + count});
    auto bytes = std::make_unique_for_overwrite<char[]>(capacity);
    std::copy_n(bytes_.get(), size_, bytes.get());
    bytes_ = std::move(bytes);
    capacity_ = capacity;
}

} // namespace l2fibctl
