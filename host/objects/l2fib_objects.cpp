// SPDX-License-Identifier: Apache-2.0

#include "host/objects/l2fib_objects.h"

#include <cerrno>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <unordered_map>

#include "host/never_destroyed.h"
#include "host/out_of_memory.h"
#include "platform/thread_safety.h"

namespace {

// A context is a number in a pointer type:
//
//   63     60 59              32 31           0
//   [ kind   | life             | id           ]
//
// The kind is never 0, so no context is null. One counter numbers the lives of all objects. Example: bridge domain 5 is
// created (life 1), removed, and created again (life 2). A context with life 1 is then stale.
enum class object_kind : uint32_t { none, bridge_domain, cross_connect, segment };

constexpr unsigned kind_shift = 60;
constexpr unsigned life_shift = 32;
constexpr uint32_t life_mask = (1u << (kind_shift - life_shift)) - 1; // lives wrap after 2^28 creations

struct bridge_domain {
    uint32_t life;
    uint32_t bridge_id;
    char name[L2FIB_NAME_BUFFER_SIZE]; // zeros follow the name
};

struct connected {
    uint32_t life;
    host::cross_connect values;
};

struct text_hash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
};

// A recursive mutex, because the module may call a function here while it holds l2fib_lock.
class L2FIB_CAPABILITY("mutex") object_lock {
public:
    void lock() L2FIB_ACQUIRE() { mutex_.lock(); }
    void unlock() L2FIB_RELEASE() { mutex_.unlock(); }

private:
    std::recursive_mutex mutex_;
};

struct object_store {
    object_lock lock;
    std::unordered_map<uint32_t, bridge_domain> bridge_domains L2FIB_GUARDED_BY(lock);
    std::unordered_map<std::string, uint32_t, text_hash, std::equal_to<>> bridge_ids L2FIB_GUARDED_BY(lock); // by name
    std::unordered_map<uint32_t, connected> cross_connects L2FIB_GUARDED_BY(lock);
    uint32_t lives L2FIB_GUARDED_BY(lock) = 0;

    uint32_t new_life() L2FIB_REQUIRES(lock) { return ++lives & life_mask; }
};

object_store &objects()
{
    static host::never_destroyed<object_store> store;
    return store.object;
}

class L2FIB_SCOPED_CAPABILITY scoped_object_lock {
public:
    explicit scoped_object_lock(object_lock &held) L2FIB_ACQUIRE(held)
        : held_(held)
    {
        held_.lock();
    }
    ~scoped_object_lock() L2FIB_RELEASE() { held_.unlock(); }
    scoped_object_lock(const scoped_object_lock &) = delete;
    scoped_object_lock &operator=(const scoped_object_lock &) = delete;

private:
    object_lock &held_;
};

l2fib_ctx_t context_of(object_kind kind, uint32_t life, uint32_t id)
{
    return reinterpret_cast<l2fib_ctx_t>(static_cast<uintptr_t>(kind) << kind_shift | uintptr_t{life} << life_shift
                                         | id);
}

uint32_t life_of(uintptr_t context)
{
    return static_cast<uint32_t>(context >> life_shift) & life_mask;
}

// Returns the record of an id, or null.
template <typename Record>
const Record *find(const std::unordered_map<uint32_t, Record> &table, uint32_t id)
{
    const auto found = table.find(id);
    return found == table.end() ? nullptr : &found->second;
}

// Returns the record that a context names, or null if the context is stale.
template <typename Record>
const Record *find_alive(const std::unordered_map<uint32_t, Record> &table, uintptr_t context)
{
    const Record *record = find(table, static_cast<uint32_t>(context));
    return record != nullptr && record->life == life_of(context) ? record : nullptr;
}

// What a context names: a kind of object, its class, and the record with its fields.
struct found_object {
    object_kind kind = object_kind::none;
    uint32_t object_class = 0;
    const void *record = nullptr; // null if the context is stale
};

found_object resolve(l2fib_ctx_t handle) L2FIB_REQUIRES(objects().lock)
{
    const auto context = reinterpret_cast<uintptr_t>(handle);
    const auto kind = static_cast<object_kind>(context >> kind_shift);
    if (kind == object_kind::bridge_domain) {
        return {kind, L2FIB_CLASS_BRIDGE_DOMAIN, find_alive(objects().bridge_domains, context)};
    }
    const connected *owner = find_alive(objects().cross_connects, context);
    if (kind == object_kind::cross_connect && owner != nullptr) {
        return {kind, L2FIB_CLASS_CROSS_CONNECT, &owner->values};
    }
    if (kind == object_kind::segment && owner != nullptr) {
        return {kind, owner->values.first.type, &owner->values.first};
    }
    return {};
}

struct field {
    object_kind kind;
    uint32_t object_class;
    uint32_t number;
    uint32_t offset; // in the record
    uint32_t size;
    uint32_t sub_kind = 0; // only an interface of this sub-kind has the field; 0: all have it
};

#define FIELD_OF(record, member) offsetof(record, member), sizeof(record::member)

constexpr field fields[] = {
    {object_kind::bridge_domain, L2FIB_CLASS_BRIDGE_DOMAIN, L2FIB_FIELD_BD_ID, FIELD_OF(bridge_domain, bridge_id)},
    {object_kind::bridge_domain, L2FIB_CLASS_BRIDGE_DOMAIN, L2FIB_FIELD_BD_NAME, FIELD_OF(bridge_domain, name)},
    {object_kind::cross_connect, L2FIB_CLASS_CROSS_CONNECT, L2FIB_FIELD_XC_126,
     FIELD_OF(host::cross_connect, field_126)},
    {object_kind::segment, L2FIB_SEGMENT_INTERFACE, L2FIB_FIELD_INTERFACE_HANDLE,
     FIELD_OF(host::segment, interface_handle)},
    {object_kind::segment, L2FIB_SEGMENT_INTERFACE, L2FIB_FIELD_INTERFACE_3, FIELD_OF(host::segment, interface_3)},
    {object_kind::segment, L2FIB_SEGMENT_INTERFACE, L2FIB_FIELD_INTERFACE_SUB_KIND,
     FIELD_OF(host::segment, interface_sub_kind)},
    {object_kind::segment, L2FIB_SEGMENT_INTERFACE, L2FIB_FIELD_INTERFACE_SUB_VALUE,
     FIELD_OF(host::segment, interface_sub_value), L2FIB_INTERFACE_SUB_KIND_23},
    {object_kind::segment, L2FIB_SEGMENT_PSEUDOWIRE, L2FIB_FIELD_PSEUDOWIRE_44, FIELD_OF(host::segment, pseudowire_44)},
    {object_kind::segment, L2FIB_SEGMENT_VXLAN, L2FIB_FIELD_VXLAN_54, FIELD_OF(host::segment, vxlan_54)},
};

#undef FIELD_OF

const field *find_field(const found_object &object, uint32_t number)
{
    for (const field &candidate : fields) {
        if (candidate.kind == object.kind && candidate.object_class == object.object_class
            && candidate.number == number) {
            return &candidate;
        }
    }
    return nullptr;
}

bool has_value(const found_object &object, const field &read)
{
    return read.sub_kind == 0 || static_cast<const host::segment *>(object.record)->interface_sub_kind == read.sub_kind;
}

// Stores the context of the object with an id.
template <typename Record>
uint32_t store_context(const std::unordered_map<uint32_t, Record> &table, object_kind kind, uint32_t id,
                       l2fib_ctx_t *ctx)
{
    const Record *found = find(table, id);
    if (found == nullptr) {
        return ENOENT;
    }
    *ctx = context_of(kind, found->life, id);
    return 0;
}

uint32_t name_refusal(std::string_view name)
{
    if (name.empty() || name.find('\0') != std::string_view::npos) {
        return EINVAL;
    }
    return name.size() > host::max_bridge_domain_name ? ENAMETOOLONG : 0;
}

void forget_name(object_store &store, std::string_view name) L2FIB_REQUIRES(store.lock)
{
    const auto named = store.bridge_ids.find(name);
    if (named != store.bridge_ids.end()) {
        store.bridge_ids.erase(named);
    }
}

// Creates or renames a bridge domain. No other bridge domain has the name.
void give_name(object_store &store, uint32_t bridge_id, std::string_view name) L2FIB_REQUIRES(store.lock)
{
    store.bridge_ids.try_emplace(std::string(name), bridge_id);
    const auto [found, fresh] = store.bridge_domains.try_emplace(bridge_id);
    bridge_domain &record = found->second;
    if (fresh) {
        record.life = store.new_life();
        record.bridge_id = bridge_id;
    } else {
        forget_name(store, record.name);
    }
    memset(record.name, 0, sizeof(record.name));
    memcpy(record.name, name.data(), name.size());
}

} // namespace

// The caller unlocks, so the analysis cannot pair the two calls.
void l2fib_lock(void) L2FIB_NO_THREAD_SAFETY_ANALYSIS
{
    objects().lock.lock();
}

void l2fib_unlock(void) L2FIB_NO_THREAD_SAFETY_ANALYSIS
{
    objects().lock.unlock();
}

uint32_t l2fib_get_plat_ctx_by_id(uint32_t object_class, uint32_t id, l2fib_ctx_t *ctx)
{
    if (ctx == nullptr) {
        return EINVAL;
    }
    object_store &store = objects();
    const scoped_object_lock hold(store.lock);
    switch (object_class) {
    case L2FIB_CLASS_BRIDGE_DOMAIN: return store_context(store.bridge_domains, object_kind::bridge_domain, id, ctx);
    case L2FIB_CLASS_CROSS_CONNECT: return store_context(store.cross_connects, object_kind::cross_connect, id, ctx);
    default: return EOPNOTSUPP;
    }
}

uint32_t l2fib_get_plat_ctx_by_name(uint32_t object_class, const char *name, l2fib_ctx_t *ctx)
{
    if (name == nullptr || ctx == nullptr) {
        return EINVAL;
    }
    if (object_class != L2FIB_CLASS_BRIDGE_DOMAIN) {
        return EOPNOTSUPP;
    }
    object_store &store = objects();
    const scoped_object_lock hold(store.lock);
    const auto named = store.bridge_ids.find(std::string_view(name));
    return named == store.bridge_ids.end()
               ? ENOENT
               : store_context(store.bridge_domains, object_kind::bridge_domain, named->second, ctx);
}

uint32_t l2fib_access_field(uint32_t object_class, const l2fib_ctx_t *ctx, uint32_t number, void *value)
{
    if (ctx == nullptr || value == nullptr) {
        return EINVAL;
    }
    const scoped_object_lock hold(objects().lock);
    const found_object object = resolve(*ctx);
    if (object.record == nullptr || object.object_class != object_class) {
        return ESTALE;
    }
    const field *read = find_field(object, number);
    if (read == nullptr) {
        return EOPNOTSUPP;
    }
    if (!has_value(object, *read)) {
        return ENODATA;
    }
    memcpy(value, static_cast<const char *>(object.record) + read->offset, read->size);
    return 0;
}

uint32_t l2fib_get_seg1_by_seg2(uint32_t object_class, const l2fib_ctx_t *ctx, uint32_t *segment_type,
                                l2fib_ctx_t *segment)
{
    if (ctx == nullptr || segment_type == nullptr || segment == nullptr || object_class != L2FIB_CLASS_CROSS_CONNECT) {
        return EINVAL;
    }
    const scoped_object_lock hold(objects().lock);
    const found_object owner = resolve(*ctx);
    if (owner.record == nullptr || owner.kind != object_kind::cross_connect) {
        return ESTALE;
    }
    *segment_type = static_cast<const host::cross_connect *>(owner.record)->first.type;
    // A segment has the life and the id of its cross-connect. Only the kind differs.
    const auto context = reinterpret_cast<uintptr_t>(*ctx);
    *segment = context_of(object_kind::segment, life_of(context), static_cast<uint32_t>(context));
    return 0;
}

namespace host {

uint32_t bridge_domain_set(uint32_t bridge_id, std::string_view name)
{
    if (const uint32_t status = name_refusal(name); status != 0) {
        return status;
    }
    object_store &store = objects();
    const scoped_object_lock hold(store.lock);
    const auto named = store.bridge_ids.find(name);
    if (named != store.bridge_ids.end()) {
        return named->second == bridge_id ? 0 : EEXIST;
    }
    try {
        give_name(store, bridge_id, name);
        return 0;
    } catch (const std::bad_alloc &) {
        forget_name(store, name);
        return ENOMEM;
    }
}

uint32_t bridge_domain_remove(uint32_t bridge_id)
{
    object_store &store = objects();
    const scoped_object_lock hold(store.lock);
    const bridge_domain *record = find(store.bridge_domains, bridge_id);
    if (record == nullptr) {
        return ENOENT;
    }
    forget_name(store, record->name);
    store.bridge_domains.erase(bridge_id);
    return 0;
}

uint32_t cross_connect_set(uint32_t xcid, const cross_connect &values)
{
    return or_out_of_memory([&] {
        object_store &store = objects();
        const scoped_object_lock hold(store.lock);
        const auto [found, fresh] = store.cross_connects.try_emplace(xcid);
        if (fresh) {
            found->second.life = store.new_life();
        }
        found->second.values = values;
        return 0u;
    });
}

uint32_t cross_connect_remove(uint32_t xcid)
{
    object_store &store = objects();
    const scoped_object_lock hold(store.lock);
    return store.cross_connects.erase(xcid) == 0 ? ENOENT : 0;
}

void objects_clear()
{
    object_store &store = objects();
    const scoped_object_lock hold(store.lock);
    store.bridge_domains.clear();
    store.bridge_ids.clear();
    store.cross_connects.clear();
}

} // namespace host
