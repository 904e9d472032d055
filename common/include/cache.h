#pragma once

#include <cstddef>
#include <exception>
#include <functional>
#include <iterator>
#include <list>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "trend_base.h"

namespace toolkit {

// Thrown by a lookup whose key is not in the cache.
class TREND_EXPORT cache_entry_not_found : public std::exception {};

// Thrown by an insertion into a cache of capacity 0.
class TREND_EXPORT cache_uninitialized : public std::exception {};

namespace detail {

// Compares and hashes by the key of the slot that it leads to. Keys are byte strings: anything with
// data() and size() in characters.
template <typename Entry>
struct handle_to {
    std::string_view key() const noexcept
    {
        const auto& bytes = ptr->effective_key();
        return std::string_view(bytes.data(), bytes.size());
    }

    friend bool operator==(const handle_to& a, const handle_to& b) noexcept
    {
        return a.key() == b.key();
    }
    friend bool operator!=(const handle_to& a, const handle_to& b) noexcept { return !(a == b); }

    typename std::vector<Entry>::iterator ptr;
};

template <typename Key, typename Val>
struct cache_entry {
    const Key& effective_key() const { return keyptr ? *keyptr : key; }

    Key key{};
    Val val{};
    bool valid = false;
    typename std::list<handle_to<cache_entry>>::iterator qpos{};  // the queue node of this slot
    const Key* keyptr = nullptr;  // the key sought, in the lookup probe only
};

// Not noexcept, which makes the standard library store the hashes: a lookup would hash its
// neighbours' long keys otherwise.
struct handle_hasher {
    template <typename Entry>
    size_t operator()(const handle_to<Entry>& handle) const
    {
        return std::hash<std::string_view>()(handle.key());
    }
};

}  // namespace detail

// A cache of fixed capacity that forgets the entry unused for the longest time.
//
// The slots never move, so a handle stays good for the life of the cache (its slot may come to hold
// another entry). Recency is a queue of handles, least recently used first, freed slots at the end;
// keys are found through a hash set of handles. A lookup that finds neither allocates nor copies
// the key, and a full cache takes a new entry without a new slot or node.
//
// An exception thrown by copying a key or value, or by memory running out, leaves the cache
// consistent and without the new entry; in a full cache the evicted entry is gone. One thread at a
// time.
template <typename Key, typename Val>
class CCache {
public:
    using entry_t = detail::cache_entry<Key, Val>;
    using handle_t = detail::handle_to<entry_t>;

    // Capacity 0 leaves the cache uninitialized: it finds nothing and takes nothing.
    explicit CCache(size_t capacity)
    {
        if (capacity != 0) init(capacity);
    }

    // Slots, queue and set point at one another.
    CCache(const CCache&) = delete;
    CCache& operator=(const CCache&) = delete;

    // The entry for `key`, which becomes the most recently used; throws cache_entry_not_found.
    handle_t lookup_raw(const Key& key)
    {
        const auto iset = find(key);
        if (iset == _hashtable.end()) throw cache_entry_not_found();

        TREND_ASSERT(iset->ptr!=_vals.end());
        TREND_ASSERT(iset->ptr->valid);
        TREND_ASSERT(iset->ptr->qpos->ptr==iset->ptr);
        make_most_recent(iset->ptr->qpos);
        return *iset;
    }

    // The value for `key`, otherwise as lookup_raw().
    const Val& lookup(const Key& key)
    {
        const handle_t handle = lookup_raw(key);
        TREND_ASSERT(handle.ptr!=_vals.end());
        TREND_ASSERT(handle.ptr->valid);
        return handle.ptr->val;
    }

    // Sets the value for `key`, in a new entry if there is none; the most recently used afterwards.
    // Throws cache_uninitialized.
    handle_t add_raw(const Key& key, const Val& val)
    {
        if (_capacity == 0) throw cache_uninitialized();

        const auto iset = find(key);
        if (iset == _hashtable.end()) return add_new_raw(key, val);

        const auto slot = iset->ptr;
        TREND_ASSERT(slot!=_vals.end());
        TREND_ASSERT(slot->valid);
        TREND_ASSERT(slot->qpos->ptr==slot);
        slot->val = val;
        make_most_recent(slot->qpos);
        return *iset;
    }

    // add_raw() for a key that is known not to be there.
    handle_t add_new_raw(const Key& key, const Val& val)
    {
        if (_capacity == 0) throw cache_uninitialized();
        TREND_ASSERT(_size<=_queue.size());
        TREND_ASSERT(_queue.size()<=_capacity);

        node_t node;  // the evicted entry's place in the set, used again
        handle_t handle;
        if (_size == _capacity) {
            node = remove_lru();
            handle = node.value();
            TREND_ASSERT(handle.ptr->valid);
            TREND_ASSERT(handle.ptr->keyptr==__null);
        } else {
            handle = take_free_slot();
            ++_size;
            handle.ptr->valid = true;
        }

        try {
            handle.ptr->key = key;
            handle.ptr->val = val;
            handle.ptr->keyptr = nullptr;
            TREND_ASSERT(_hashtable.size()<_capacity);
            if (node)
                _hashtable.insert(std::move(node));
            else
                _hashtable.insert(handle);
        } catch (...) {
            free_slot(handle);
            throw;
        }
        TREND_ASSERT(_hashtable.size()==_size);
        return handle;
    }

    // Makes the entry in the slot, which must be valid, the most recently used.
    void touch(const handle_t& handle)
    {
        TREND_ASSERT(handle.ptr->valid);
        make_most_recent(handle.ptr->qpos);
    }

    // Forgets the entry for `key` and releases its value; false when there is none.
    bool remove(const Key& key)
    {
        const auto iset = find(key);
        if (iset == _hashtable.end()) return false;

        const handle_t handle = *iset;
        _hashtable.erase(iset);
        make_most_recent(handle.ptr->qpos);
        free_slot(handle);
        return true;
    }

    size_t size() const { return _size; }
    size_t capacity() const { return _capacity; }

private:
    using queue_t = std::list<handle_t>;
    using hashtable_t = std::unordered_set<handle_t, detail::handle_hasher>;
    using node_t = typename hashtable_t::node_type;

    void init(size_t capacity)
    {
        _vals.clear();
        _hashtable.clear();
        _size = 0;
        _queue.clear();
        _unused = _queue.end();
        _capacity = capacity;
        _vals.reserve(capacity);
        _hashtable.reserve(capacity);
        _probe.resize(1);
    }

    typename hashtable_t::iterator find(const Key& key)
    {
        if (_probe.empty()) return _hashtable.end();
        _probe.front().keyptr = &key;
        return _hashtable.find(handle_t{_probe.begin()});
    }

    // The valid entry that was used last stands just before the free slots.
    void make_most_recent(typename queue_t::iterator node) { _queue.splice(_unused, _queue, node); }

    // Takes the least recently used entry of a full cache out of the set. Its slot, the most recent
    // from now on, keeps key and value until they are overwritten.
    node_t remove_lru()
    {
        TREND_ASSERT(_queue.size()==_hashtable.size());
        TREND_ASSERT(_vals.size()>=_queue.size());
        TREND_ASSERT(!_queue.empty());
        TREND_ASSERT(_unused==_queue.end());

        const handle_t deleteme = _queue.front();
        make_most_recent(_queue.begin());
        TREND_ASSERT(deleteme.ptr!=_vals.end());
        TREND_ASSERT(deleteme.ptr->valid);
        TREND_ASSERT(_hashtable.find(deleteme)!=_hashtable.end());
        return _hashtable.extract(deleteme);
    }

    handle_t take_free_slot()
    {
        if (_unused != _queue.end()) {
            TREND_ASSERT(_queue.size()>_size);
            const handle_t handle = *_unused;
            TREND_ASSERT(handle.ptr->qpos==_unused);
            ++_unused;
            return handle;
        }

        TREND_ASSERT(_queue.size()==_size);
        TREND_ASSERT(_vals.size()<_capacity);
        _vals.emplace_back();
        try {
            _queue.push_back(handle_t{std::prev(_vals.end())});
        } catch (...) {
            _vals.pop_back();
            throw;
        }
        const auto node = std::prev(_queue.end());
        node->ptr->qpos = node;
        return *node;
    }

    // Frees the most recently used slot, which is in the set no more.
    void free_slot(const handle_t& handle)
    {
        handle.ptr->valid = false;
        _unused = handle.ptr->qpos;
        --_size;
        handle.ptr->val = Val();  // last, as it may throw
    }

    size_t _capacity = 0;  // 0: uninitialized
    size_t _size = 0;
    hashtable_t _hashtable{10};
    std::vector<entry_t> _vals;
    queue_t _queue;
    typename queue_t::iterator _unused = _queue.end();  // the first free slot, or the end
    std::vector<entry_t> _probe;
};

}  // namespace toolkit
