// SPDX-License-Identifier: Apache-2.0

// Static objects without a destruction. Threads can still use them after main has returned.
//
//      registry &the_registry()
//      {
//          static host::never_destroyed<registry> only;
//          return only.object;
//      }
#pragma once

#include <cstddef>
#include <new>

namespace host {

// Use it as the type of a static variable. The object is created at the first use, inside the variable: its creation
// needs no heap memory.
template <typename Object>
struct never_destroyed {
    alignas(Object) std::byte memory[sizeof(Object)];
    Object &object = *new (memory) Object;
};

} // namespace host
