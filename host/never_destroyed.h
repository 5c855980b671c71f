// SPDX-License-Identifier: Apache-2.0

// Static objects that outlive everything: threads may run on when main has returned.
#pragma once

#include <cstddef>
#include <new>

namespace host {

// As the type of a static variable: `object` is there from the first use on, in memory that nobody could refuse.
template <typename Object>
struct never_destroyed {
    alignas(Object) std::byte memory[sizeof(Object)];
    Object &object = *new (memory) Object;
};

} // namespace host
