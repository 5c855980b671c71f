// SPDX-License-Identifier: Apache-2.0

// Makes the n-th call of a platform operation fail.
//
// A test program that defines a function of the platform wins over the library that does, for the module's calls as
// well. INTERPOSE defines such a function: it passes calls on, counts them, and refuses the one that a test chose.
// Use it once for an operation, at global scope of one source of the program:
//
//     INTERPOSE(void *, chunk_malloc, (chunk_pool_t * pool), (pool), nullptr)
//
//     interpose::chunk_malloc.refuse(3);   // the third call from now on answers null
//     interpose::chunk_malloc.refuse(interpose::every);
//
// The last argument is what a refused call answers; it may use the arguments, and `real` for the function that is
// hidden, where a refusal has to have taken effect all the same: (real(tree, node), nullptr).
// Calls are counted on all threads together.
#pragma once

#include <dlfcn.h>

#include <atomic>
#include <cstdint>

namespace interpose {

constexpr uint64_t every = UINT64_MAX;

struct operation {
    std::atomic<uint64_t> calls{0}; // since the last refuse()
    std::atomic<uint64_t> refused_call{0};

    // Refuses the nth call from now on, counted from 1; 0 refuses none.
    void refuse(uint64_t nth)
    {
        refused_call = nth;
        calls = 0;
    }

    // Whether the call has come.
    [[nodiscard]] bool has_refused() const { return refused_call != 0 && calls >= refused_call; }

    // Counts a call; true when it is to be refused.
    bool meet() { return ++calls == refused_call || refused_call == every; }
};

} // namespace interpose

// The operation `name` of interpose and the function that the program hides, for functions that are written by hand:
// variadic ones.
#define INTERPOSE_OPERATION(name) \
    namespace interpose {         \
    inline operation name;        \
    }
#define INTERPOSE_HIDDEN(name) reinterpret_cast<decltype(&(name))>(dlsym(RTLD_NEXT, #name))

#define INTERPOSE(result, name, parameters, arguments, refusal)     \
    INTERPOSE_OPERATION(name)                                       \
    extern "C" result name parameters                               \
    {                                                               \
        static const auto real = INTERPOSE_HIDDEN(name);            \
        return interpose::name.meet() ? (refusal) : real arguments; \
    }
