// SPDX-License-Identifier: Apache-2.0

#include "host/tree/ordtree_node.h"

#include "base/mutex.h"
#include "host/tree/ordtree_memory.h"

namespace host::btree {

constinit const char node_slab_owner = 0;

namespace {

struct slab {
    slab *prev; // neighbours in the list of slabs with free nodes
    slab *next;
    node *free;    // list of nodes that were in use before
    size_t fresh;  // the first node that was never in use; all behind it were not either
    size_t in_use; // number of nodes
};

static_assert(sizeof(slab) <= node_size, "a slab's header takes the place of its first node");

constexpr size_t slab_end = arena_slab_size / node_size; // node 0 is the header

// The mutex also guards the headers of all slabs.
struct node_memory {
    base::mutex mutex;
    slab *open L2FIB_GUARDED_BY(mutex); // list of slabs with free nodes
    size_t slabs L2FIB_GUARDED_BY(mutex);
    size_t empty_slabs L2FIB_GUARDED_BY(mutex);
    size_t nodes L2FIB_GUARDED_BY(mutex);
};

constinit node_memory memory{};

bool is_full(const slab *of)
{
    return of->free == nullptr && of->fresh == slab_end;
}

void open_slab(slab *with_room) L2FIB_REQUIRES(memory.mutex)
{
    with_room->prev = nullptr;
    with_room->next = memory.open;
    if (memory.open != nullptr) {
        memory.open->prev = with_room;
    }
    memory.open = with_room;
}

void close_slab(slab *without_room) L2FIB_REQUIRES(memory.mutex)
{
    slab *const prev = without_room->prev;
    slab *const next = without_room->next;
    (prev != nullptr ? prev->next : memory.open) = next;
    if (next != nullptr) {
        next->prev = prev;
    }
}

slab *map_slab() L2FIB_REQUIRES(memory.mutex)
{
    // The first slab may stay nearly empty.
    const arena_pages pages = memory.slabs == 0 ? arena_pages::small : arena_pages::huge;
    auto *const mapped = static_cast<slab *>(arena_take(&node_slab_owner, pages));
    if (mapped != nullptr) {
        mapped->fresh = 1;
        open_slab(mapped);
        memory.slabs++;
        memory.empty_slabs++;
    }
    return mapped;
}

node *take_from(slab *from) L2FIB_REQUIRES(memory.mutex)
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

void unmap_slab(slab *empty) L2FIB_REQUIRES(memory.mutex)
{
    close_slab(empty);
    memory.slabs--;
    arena_give(empty);
}

void give_to(slab *to, node *unused) L2FIB_REQUIRES(memory.mutex)
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

bool nodes_take(unsigned count, node *&list) noexcept
{
    const base::scoped_lock hold(memory.mutex);
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
    const base::scoped_lock hold(memory.mutex);
    give_to(arena_slab_of<slab>(unused), unused);
}

} // namespace host::btree

namespace host {

using btree::memory;

ordtree_memory_figures ordtree_memory()
{
    const base::scoped_lock hold(memory.mutex);
    return {memory.nodes, memory.nodes * btree::node_size, memory.slabs * arena_slab_size};
}

} // namespace host
