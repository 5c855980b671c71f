// SPDX-License-Identifier: Apache-2.0

#include "host/tree/ordtree_node.h"

#include "host/pool/arena.h"
#include "host/tree/ordtree_audit.h"

#include <mutex>

namespace host::btree {
namespace {

struct slab {
    slab *prev; // neighbours among the slabs that have free nodes
    slab *next;
    node *free;    // nodes that were in use before
    size_t fresh;  // of the nodes that have never been used, the first
    size_t in_use; // nodes
};

static_assert(sizeof(slab) <= node_size, "a slab's header takes the place of its first node");

constexpr size_t slab_end = arena_slab_size / node_size;

struct node_memory {
    std::mutex mutex; // guards what follows and the headers of all slabs
    slab *open;       // slabs that have free nodes
    size_t slabs;
    size_t empty_slabs;
    size_t nodes;
    size_t node_limit; // 0: none
};

constinit node_memory memory{};

bool is_full(const slab *of)
{
    return of->free == nullptr && of->fresh == slab_end;
}

void open_slab(slab *with_room)
{
    with_room->prev = nullptr;
    with_room->next = memory.open;
    if (memory.open != nullptr) {
        memory.open->prev = with_room;
    }
    memory.open = with_room;
}

void close_slab(slab *without_room)
{
    slab *const prev = without_room->prev;
    slab *const next = without_room->next;
    (prev != nullptr ? prev->next : memory.open) = next;
    if (next != nullptr) {
        next->prev = prev;
    }
}

slab *map_slab()
{
    auto *const mapped = static_cast<slab *>(arena_take(&memory, arena_pages::huge));
    if (mapped != nullptr) {
        mapped->fresh = 1;
        open_slab(mapped);
        memory.slabs++;
        memory.empty_slabs++;
    }
    return mapped;
}

node *take_from(slab *from)
{
    node *taken = from->free;
    if (taken != nullptr) {
        from->free = taken->next;
    } else {
        taken = reinterpret_cast<node *>(from) + from->fresh++;
    }
    if (from->in_use++ == 0) {
        memory.empty_slabs--;
    }
    if (is_full(from)) {
        close_slab(from);
    }
    memory.nodes++;
    return taken;
}

void unmap_slab(slab *empty)
{
    close_slab(empty);
    memory.slabs--;
    arena_give(empty);
}

void give_to(slab *to, node *unused)
{
    if (is_full(to)) {
        open_slab(to);
    }
    unused->next = to->free;
    to->free = unused;
    memory.nodes--;
    if (--to->in_use > 0) {
        return;
    }
    if (memory.empty_slabs > 0) {
        unmap_slab(to);
    } else {
        memory.empty_slabs++;
    }
}

bool within_limit(unsigned more)
{
    return memory.node_limit == 0 || memory.nodes + more <= memory.node_limit;
}

void clear_header(node *unused)
{
    __atomic_store_n(&unused->tree, nullptr, __ATOMIC_RELAXED);
    unused->parent = nullptr;
    unused->prev = nullptr;
    unused->next = nullptr;
    unused->count = 0;
    unused->level = 0;
    unused->index = 0;
}

} // namespace

node *node_at(const void *address) noexcept
{
    const auto value = reinterpret_cast<uintptr_t>(address);
    const bool aligned = value % node_size == 0 && value % arena_slab_size != 0;
    if (!aligned || arena_owner(address) != &memory) {
        return nullptr;
    }
    return reinterpret_cast<node *>(value);
}

bool nodes_take(unsigned count, node *&list) noexcept
{
    const std::lock_guard hold(memory.mutex);
    if (!within_limit(count)) {
        return false;
    }
    list = nullptr;
    for (; count > 0; count--) {
        slab *const from = memory.open != nullptr ? memory.open : map_slab();
        if (from == nullptr) {
            break;
        }
        node *const taken = take_from(from);
        taken->next = list;
        list = taken;
    }
    if (count == 0) {
        return true;
    }
    while (list != nullptr) {
        node *const unused = list;
        list = unused->next;
        give_to(arena_slab_of<slab>(unused), unused);
    }
    return false;
}

void node_give(node *unused) noexcept
{
    clear_header(unused);
    const std::lock_guard hold(memory.mutex);
    give_to(arena_slab_of<slab>(unused), unused);
}

} // namespace host::btree

ordtree_memory_t ordtree_memory(void)
{
    using host::btree::memory;
    const std::lock_guard hold(memory.mutex);
    return {memory.nodes, memory.nodes * host::btree::node_size, memory.slabs * host::arena_slab_size};
}

void ordtree_set_node_limit(size_t nodes)
{
    using host::btree::memory;
    const std::lock_guard hold(memory.mutex);
    memory.node_limit = nodes;
}
