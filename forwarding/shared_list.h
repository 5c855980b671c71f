// SPDX-License-Identifier: Apache-2.0

// A sorted list that shares with its copies what did not change. A copy costs a pointer for each hundred views, and the
// next change replaces a hundred pointers at most. So a reader keeps the list of one moment, however large it is, while
// the writer continues.
//
//      shared_list<port_view> ports;           // sorted by key_of(port_view)
//      ports.put({.xcid = 7});
//      const shared_list<port_view> then = ports.share();
//      ports.erase(key_of(view));              // `then` still holds it
//      then.find(key)                          // the view, or null
//
// A view never changes; `put` replaces it. A pointer to one is valid as long as a list holds it.
//
// Threads: the list takes no lock. Lists that share views may be used on different threads.
#pragma once

#include <algorithm>
#include <compare>
#include <cstddef>
#include <iterator>
#include <memory>
#include <utility>
#include <vector>

namespace forwarding {

template <typename View>
class shared_list {
public:
    shared_list() = default;
    shared_list(shared_list &&) noexcept = default;
    shared_list &operator=(shared_list &&) noexcept = default;
    shared_list(const shared_list &) = delete;
    shared_list &operator=(const shared_list &) = delete;
    ~shared_list() = default;

    // Returns a copy.
    shared_list share()
    {
        for (part &each : parts_) {
            each.is_shared = true;
        }
        shared_list copy;
        copy.parts_ = parts_;
        copy.ends_ = ends_;
        return copy;
    }

    // A random-access iterator by index.
    class iterator {
    public:
        using iterator_category = std::random_access_iterator_tag;
        using value_type = View;
        using difference_type = std::ptrdiff_t;
        using pointer = const View *;
        using reference = const View &;

        iterator() = default;
        iterator(const shared_list *list, size_t index)
            : list_(list)
            , index_(index)
        {}

        reference operator*() const { return (*list_)[index_]; }
        pointer operator->() const { return &**this; }
        reference operator[](difference_type by) const { return *(*this + by); }
        iterator &operator+=(difference_type by)
        {
            index_ += static_cast<size_t>(by);
            return *this;
        }
        iterator &operator-=(difference_type by) { return *this += -by; }
        iterator &operator++() { return *this += 1; }
        iterator &operator--() { return *this -= 1; }
        // The standard's concept of an iterator asks for these results. NOLINTBEGIN(cert-dcl21-cpp)
        iterator operator++(int) { return std::exchange(*this, *this + 1); }
        iterator operator--(int) { return std::exchange(*this, *this - 1); }
        // NOLINTEND(cert-dcl21-cpp)
        friend iterator operator+(iterator at, difference_type by) { return at += by; }
        friend iterator operator+(difference_type by, iterator at) { return at += by; }
        friend iterator operator-(iterator at, difference_type by) { return at -= by; }
        friend difference_type operator-(const iterator &left, const iterator &right)
        {
            return static_cast<difference_type>(left.index_ - right.index_);
        }
        bool operator==(const iterator &other) const { return index_ == other.index_; }
        auto operator<=>(const iterator &other) const { return index_ <=> other.index_; }

    private:
        const shared_list *list_ = nullptr;
        size_t index_ = 0;
    };
    using const_iterator = iterator;
    using value_type = View;

    size_t size() const { return ends_.empty() ? 0 : ends_.back(); }
    bool empty() const { return size() == 0; }
    iterator begin() const { return {this, 0}; }
    iterator end() const { return {this, size()}; }
    const View &front() const { return (*this)[0]; }
    const View &back() const { return (*this)[size() - 1]; }

    const View &operator[](size_t index) const
    {
        const auto at = static_cast<size_t>(std::ranges::upper_bound(ends_, index) - ends_.begin());
        return *(*parts_[at].views)[index - (at == 0 ? 0 : ends_[at - 1])];
    }

    // Returns the view with this key, or null.
    template <typename Key>
    const View *find(const Key &key) const
    {
        const size_t at = part_of(key);
        if (at == parts_.size()) {
            return nullptr;
        }
        const chunk &in = *parts_[at].views;
        const auto found = std::ranges::lower_bound(in, key, {}, key_at);
        return key_at(*found) == key ? found->get() : nullptr;
    }

    // Adds a view, or replaces the one with the same key.
    void put(View view)
    {
        auto added = std::make_shared<const View>(std::move(view));
        const size_t behind = part_of(key_of(*added));
        if (parts_.empty()) {
            parts_.push_back({std::make_shared<chunk>(), false});
        }
        const size_t at = std::min(behind, parts_.size() - 1);
        chunk &to = own(at);
        const auto place = std::ranges::lower_bound(to, key_of(*added), {}, key_at);
        if (place != to.end() && key_at(*place) == key_of(*added)) {
            *place = std::move(added);
            return;
        }
        to.insert(place, std::move(added));
        split(at);
        count_from(at);
    }

    // Removes the view with this key, if there is one.
    template <typename Key>
    void erase(const Key &key)
    {
        if (find(key) == nullptr) {
            return;
        }
        const size_t at = part_of(key);
        chunk &from = own(at);
        from.erase(std::ranges::lower_bound(from, key, {}, key_at));
        if (from.empty()) {
            parts_.erase(parts_.begin() + static_cast<std::ptrdiff_t>(at));
        }
        count_from(at);
    }

private:
    using chunk = std::vector<std::shared_ptr<const View>>;

    struct part {
        std::shared_ptr<chunk> views; // never empty outside of `put`
        bool is_shared = false;       // a copy of the list may hold it, too
    };

    static constexpr size_t max_chunk = 128; // views

    static auto key_at(const std::shared_ptr<const View> &view) { return key_of(*view); }

    // The first part whose last key is not below `key`; the number of parts if there is none.
    template <typename Key>
    size_t part_of(const Key &key) const
    {
        const auto last_key = [](const part &of) { return key_at(of.views->back()); };
        return static_cast<size_t>(std::ranges::lower_bound(parts_, key, {}, last_key) - parts_.begin());
    }

    // The views of a part, to be changed.
    chunk &own(size_t at)
    {
        if (parts_[at].is_shared) {
            parts_[at] = {std::make_shared<chunk>(*parts_[at].views), false};
        }
        return *parts_[at].views;
    }

    void split(size_t at)
    {
        chunk &full = *parts_[at].views;
        if (full.size() > max_chunk) {
            const auto half = full.begin() + static_cast<std::ptrdiff_t>(full.size() / 2);
            auto upper = std::make_shared<chunk>(half, full.end());
            full.erase(half, full.end());
            parts_.insert(parts_.begin() + static_cast<std::ptrdiff_t>(at) + 1, {std::move(upper), false});
        }
    }

    void count_from(size_t at)
    {
        ends_.resize(parts_.size());
        for (; at < parts_.size(); at++) {
            ends_[at] = (at == 0 ? 0 : ends_[at - 1]) + parts_[at].views->size();
        }
    }

    std::vector<part> parts_;
    std::vector<size_t> ends_; // index behind the last view of each part
};

} // namespace forwarding
