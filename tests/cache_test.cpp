// The cache: recency, stable slots, what a lookup costs, and what failures leave behind.

#include "cache.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <exception>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <new>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "allocations.h"
#include "expect.h"

using toolkit::cache_entry_not_found;
using toolkit::cache_uninitialized;
using toolkit::CCache;
using toolkit::detail::handle_hasher;

namespace {

using cache_t = CCache<std::string, int>;
using handle_t = cache_t::handle_t;
using entry_t = cache_t::entry_t;

// A lookup, so the entry becomes the most recently used one.
template <typename Cache, typename Key>
bool has(Cache& cache, const Key& key)
{
    try {
        cache.lookup_raw(key);
        return true;
    } catch (const cache_entry_not_found&) {
        return false;
    }
}

// A cache that can tell in which order it will evict.
class small_cache : public testing::Test {
protected:
    handle_t add(const std::string& key, int val = 0)
    {
        const handle_t handle = _cache.add_raw(key, val);
        _slots[&*handle.ptr] = handle;
        return handle;
    }

    // The keys from the least to the most recently used. New entries take all the slots in turn,
    // the free ones first, so this ends the test.
    std::string order()
    {
        std::map<const entry_t*, std::string> keys;
        for (const auto& [slot, handle] : _slots)
            keys[slot] = handle.ptr->key;

        std::string out;
        const size_t free = _cache.capacity() - _cache.size();
        for (size_t n = 0; n < _cache.capacity(); ++n) {
            const handle_t taken = _cache.add_raw("new entry " + std::to_string(n), 0);
            if (n >= free) out += keys.at(&*taken.ptr);
        }
        return out;
    }

    cache_t _cache{3};
    std::map<const entry_t*, handle_t> _slots;
};

using lookup = small_cache;
using add_raw = small_cache;
using add_new_raw = small_cache;
using remove_key = small_cache;
using invariants = small_cache;

}  // namespace

// Capacity and what an empty cache does ----------------------------------------------------------

TEST(empty_cache, has_its_capacity_and_no_entry)
{
    const cache_t cache(5);
    EXPECT_EQ(5u, cache.capacity());
    EXPECT_EQ(0u, cache.size());
}

TEST(empty_cache, finds_nothing)
{
    cache_t cache(5);
    EXPECT_THROW(cache.lookup_raw("a"), cache_entry_not_found);
    EXPECT_THROW(cache.lookup("a"), cache_entry_not_found);
    EXPECT_FALSE(cache.remove("a"));
}

TEST(cache_of_capacity_0, takes_nothing)
{
    cache_t cache(0);
    EXPECT_THROW(cache.add_raw("a", 1), cache_uninitialized);
    EXPECT_THROW(cache.add_new_raw("a", 1), cache_uninitialized);
    EXPECT_EQ(0u, cache.size());
    EXPECT_EQ(0u, cache.capacity());
}

TEST(cache_of_capacity_0, finds_nothing)
{
    cache_t cache(0);
    EXPECT_THROW(cache.lookup_raw("a"), cache_entry_not_found);
    EXPECT_THROW(cache.lookup("a"), cache_entry_not_found);
    EXPECT_FALSE(cache.remove("a"));
}

TEST(cache, stays_where_it_is)
{
    static_assert(!std::is_copy_constructible_v<cache_t>);
    static_assert(!std::is_copy_assignable_v<cache_t>);
    static_assert(!std::is_move_constructible_v<cache_t>);
    static_assert(!std::is_move_assignable_v<cache_t>);
}

template <typename Exception>
void expect_standard_exception_that_carries_nothing()
{
    static_assert(std::is_base_of_v<std::exception, Exception>);
    static_assert(sizeof(Exception) == sizeof(std::exception));
    try {
        throw Exception();
    } catch (const std::exception& caught) {
        EXPECT_STREQ(std::exception().what(), caught.what());
    }
}

TEST(cache_exceptions, are_standard_ones_that_carry_nothing)
{
    expect_standard_exception_that_carries_nothing<cache_entry_not_found>();
    expect_standard_exception_that_carries_nothing<cache_uninitialized>();
}

// Keys, hashes and handles -----------------------------------------------------------------------

namespace {

// A slot outside any cache, to ask what hash and comparison make of it.
class lone_slot {
public:
    explicit lone_slot(const std::string& key) : _slots(1) { _slots.front().key = key; }

    void seek(const std::string& key) { _slots.front().keyptr = &key; }
    handle_t handle() { return handle_t{_slots.begin()}; }

private:
    std::vector<entry_t> _slots;
};

const std::string with_zero_byte("a\0b", 3);

}  // namespace

TEST(handle_hash, is_the_standard_hash_of_the_key)
{
    for (const std::string& key :
         {std::string(), std::string("a"), std::string("SELECT * FROM periods"), with_zero_byte,
          std::string(1000, '\xff')})
        EXPECT_EQ(std::hash<std::string>()(key), handle_hasher()(lone_slot(key).handle())) << key;
}

TEST(handle_hash, follows_the_key_sought_where_there_is_one)
{
    const std::string sought = "sought";
    lone_slot slot("stored");
    slot.seek(sought);
    EXPECT_EQ(std::hash<std::string>()(sought), handle_hasher()(slot.handle()));
}

TEST(handle_comparison, wants_equal_lengths_and_equal_bytes)
{
    const auto equal = [](const std::string& a, const std::string& b) {
        lone_slot one(a);
        lone_slot other(b);
        EXPECT_NE(one.handle() == other.handle(), one.handle() != other.handle());
        return one.handle() == other.handle();
    };
    EXPECT_TRUE(equal("abc", "abc"));
    EXPECT_TRUE(equal("", ""));
    EXPECT_FALSE(equal("abc", "abd"));
    EXPECT_FALSE(equal("abc", "ab"));
    EXPECT_FALSE(equal("abc", "ABC"));
    EXPECT_TRUE(equal(with_zero_byte, with_zero_byte));
    EXPECT_FALSE(equal(with_zero_byte, std::string("a\0c", 3)));
    EXPECT_FALSE(equal(std::string("a"), std::string("a\0", 2)));
}

TEST(handle_comparison, follows_the_key_sought_where_there_is_one)
{
    const std::string sought = "a";
    lone_slot probe("b");
    probe.seek(sought);
    EXPECT_TRUE(probe.handle() == lone_slot("a").handle());
    EXPECT_TRUE(probe.handle() != lone_slot("b").handle());
}

TEST(cache, tells_keys_apart_behind_a_zero_byte)
{
    cache_t cache(3);
    cache.add_raw(with_zero_byte, 1);
    cache.add_raw(std::string("a\0c", 3), 2);
    cache.add_raw("a", 3);
    EXPECT_EQ(1, cache.lookup(with_zero_byte));
    EXPECT_EQ(2, cache.lookup(std::string("a\0c", 3)));
    EXPECT_EQ(3, cache.lookup("a"));
}

TEST(cache, takes_the_empty_key_like_any_other)
{
    cache_t cache(1);
    EXPECT_FALSE(has(cache, std::string()));
    cache.add_raw("", 4);
    EXPECT_EQ(4, cache.lookup(""));
}

TEST(cache, takes_any_type_of_byte_string_as_key)
{
    const std::vector<char> a = {'a', 'b'};
    const std::vector<char> b = {'a', 'c'};
    CCache<std::vector<char>, std::string> cache(1);
    cache.add_raw(a, "A");
    EXPECT_EQ("A", cache.lookup(a));
    cache.add_raw(b, "B");
    EXPECT_EQ("B", cache.lookup(b));
    EXPECT_FALSE(has(cache, a));
}

TEST_F(lookup, gives_a_handle_equal_to_the_one_of_the_insertion)
{
    const handle_t pump = add("pump");
    const handle_t fan = add("fan");
    EXPECT_TRUE(_cache.lookup_raw("pump") == pump);
    EXPECT_TRUE(_cache.lookup_raw("pump") != fan);
}

TEST_F(add_raw, returns_a_handle_to_the_slot_of_the_entry)
{
    const handle_t handle = add("a", 7);
    EXPECT_EQ("a", handle.ptr->key);
    EXPECT_EQ(7, handle.ptr->val);
    EXPECT_TRUE(handle.ptr->valid);
    EXPECT_EQ(nullptr, handle.ptr->keyptr);
    EXPECT_EQ(&*handle.ptr, &*handle.ptr->qpos->ptr) << "the queue node refers back to the slot";
}

TEST_F(lookup, returns_a_handle_to_the_same_slot)
{
    const handle_t handle = add("a", 7);
    EXPECT_EQ(&*handle.ptr, &*_cache.lookup_raw("a").ptr);
    EXPECT_EQ(&handle.ptr->val, &_cache.lookup("a"));
    EXPECT_EQ(nullptr, handle.ptr->keyptr) << "only the probe carries the key sought";
}

TEST_F(lookup, finds_values_changed_through_a_handle)
{
    add("a", 7).ptr->val = 8;
    EXPECT_EQ(8, _cache.lookup("a"));
}

// Recency ----------------------------------------------------------------------------------------

TEST_F(add_raw, makes_the_entry_the_most_recently_used)
{
    add("a");
    add("b");
    add("c");
    EXPECT_EQ(3u, _cache.size());
    EXPECT_EQ("abc", order());
}

TEST_F(add_raw, evicts_the_entry_unused_for_the_longest_time)
{
    add("a", 1);
    add("b", 2);
    add("c", 3);
    add("d", 4);
    EXPECT_EQ(3u, _cache.size());
    EXPECT_FALSE(has(_cache, "a"));
    EXPECT_EQ("bcd", order());
}

TEST_F(add_raw, gives_an_existing_entry_the_new_value_and_makes_it_the_most_recent)
{
    const handle_t first = add("a", 1);
    add("b", 2);
    add("c", 3);
    const handle_t again = add("a", 11);
    EXPECT_EQ(&*first.ptr, &*again.ptr);
    EXPECT_EQ(11, again.ptr->val);
    EXPECT_EQ(3u, _cache.size());
    EXPECT_EQ("bca", order());
}

TEST_F(add_new_raw, adds_like_add_raw)
{
    add("a");
    add("b");
    add("c");
    const handle_t handle = _cache.add_new_raw("d", 4);
    EXPECT_EQ("d", handle.ptr->key);
    EXPECT_EQ(4, _cache.lookup("d"));
    EXPECT_EQ("bcd", order());
}

TEST_F(lookup, makes_the_entry_the_most_recently_used)
{
    add("a");
    add("b");
    add("c");
    _cache.lookup("a");
    EXPECT_EQ("bca", order());
}

TEST_F(lookup, of_handle_and_of_value_count_alike)
{
    add("a");
    add("b");
    add("c");
    _cache.lookup_raw("b");
    _cache.lookup("a");
    EXPECT_EQ("cba", order());
}

TEST_F(lookup, of_the_most_recent_entry_changes_nothing)
{
    add("a");
    add("b");
    add("c");
    _cache.lookup("c");
    _cache.lookup("c");
    EXPECT_EQ("abc", order());
}

TEST_F(lookup, without_success_changes_nothing)
{
    add("a");
    add("b");
    add("c");
    EXPECT_FALSE(has(_cache, "x"));
    EXPECT_EQ(3u, _cache.size());
    EXPECT_EQ("abc", order());
}

TEST_F(lookup, moves_entries_of_a_cache_that_is_not_full)
{
    add("a");
    add("b");
    _cache.lookup("a");
    add("c");
    EXPECT_EQ("bac", order());
}

TEST(cache_of_capacity_1, holds_the_last_entry_added)
{
    cache_t cache(1);
    for (const char* key : {"a", "b", "a"}) {
        cache.add_raw(key, key[0]);
        EXPECT_EQ(key[0], cache.lookup(key));
        EXPECT_EQ(1u, cache.size());
    }
    EXPECT_FALSE(has(cache, "b"));
}

namespace {

// What a cache should do, told in the plainest way.
class model {
public:
    explicit model(size_t capacity) : _capacity(capacity) {}

    const int* find(const std::string& key)
    {
        const auto found = position(key);
        if (found == _entries.end()) return nullptr;
        _entries.splice(_entries.end(), _entries, found);
        return &_entries.back().second;
    }

    void add(const std::string& key, int val)
    {
        if (!remove(key) && _entries.size() == _capacity) _entries.pop_front();
        _entries.emplace_back(key, val);
    }

    bool remove(const std::string& key)
    {
        const auto found = position(key);
        if (found == _entries.end()) return false;
        _entries.erase(found);
        return true;
    }

    size_t size() const { return _entries.size(); }

private:
    std::list<std::pair<std::string, int>>::iterator position(const std::string& key)
    {
        return std::find_if(_entries.begin(), _entries.end(),
                            [&](const auto& entry) { return entry.first == key; });
    }

    size_t _capacity;
    std::list<std::pair<std::string, int>> _entries;  // least recently used first
};

}  // namespace

TEST(cache, does_what_a_list_in_order_of_use_would_do)
{
    for (size_t capacity = 1; capacity <= 12; ++capacity) {
        std::mt19937 random(static_cast<unsigned int>(capacity));
        cache_t cache(capacity);
        model expected(capacity);
        for (int turn = 0; turn < 3000; ++turn) {
            const std::string key(1, static_cast<char>('a' + random() % 16));
            const auto action = random() % 8;
            if (action == 0) {
                ASSERT_EQ(expected.remove(key), cache.remove(key)) << capacity << ' ' << turn;
            } else if (action < 4) {
                expected.add(key, turn);
                ASSERT_EQ(turn, cache.add_raw(key, turn).ptr->val) << capacity << ' ' << turn;
            } else if (const int* const val = expected.find(key)) {
                ASSERT_TRUE(has(cache, key)) << capacity << ' ' << turn;
                ASSERT_EQ(*val, cache.lookup(key)) << capacity << ' ' << turn;
            } else {
                ASSERT_FALSE(has(cache, key)) << capacity << ' ' << turn;
            }
            ASSERT_EQ(expected.size(), cache.size()) << capacity << ' ' << turn;
        }
    }
}

// Slots ------------------------------------------------------------------------------------------

TEST(slots, never_move_while_the_cache_fills_and_evicts)
{
    cache_t cache(100);
    std::vector<handle_t> handles;
    std::vector<const entry_t*> slots;
    for (int n = 0; n < 100; ++n) {
        handles.push_back(cache.add_raw(std::to_string(n), n));
        slots.push_back(&*handles.back().ptr);
    }
    for (int n = 100; n < 250; ++n)
        cache.add_raw(std::to_string(n), n);

    // 0 to 99 went into their slots in order, 100 to 199 and 200 to 249 took over in that order.
    for (int n = 0; n < 100; ++n) {
        const auto index = static_cast<size_t>(n);
        EXPECT_EQ(slots[index], &*handles[index].ptr);
        EXPECT_EQ(n < 50 ? 200 + n : 100 + n, handles[index].ptr->val);
    }
}

TEST(slots, of_evicted_entries_serve_the_next_ones)
{
    cache_t cache(2);
    const handle_t a = cache.add_raw("a", 1);
    const handle_t b = cache.add_raw("b", 2);
    cache.lookup("a");
    const handle_t c = cache.add_raw("c", 3);
    EXPECT_EQ(&*b.ptr, &*c.ptr);
    EXPECT_EQ("c", b.ptr->key) << "the old handle shows the new entry";
    EXPECT_EQ(3, b.ptr->val);
    EXPECT_EQ("a", a.ptr->key);
}

TEST(slots, keep_their_queue_node)
{
    cache_t cache(2);
    const handle_t a = cache.add_raw("a", 1);
    const auto* const node = &*a.ptr->qpos;
    cache.add_raw("b", 2);
    cache.lookup("a");
    EXPECT_EQ(node, &*a.ptr->qpos);
    cache.lookup("b");
    cache.add_raw("c", 3);
    EXPECT_EQ("c", a.ptr->key);
    EXPECT_EQ(node, &*a.ptr->qpos);
}

TEST(slots, release_the_old_value_when_they_are_taken_over)
{
    CCache<std::string, std::shared_ptr<int>> cache(1);
    auto value = std::make_shared<int>(5);
    const std::weak_ptr<int> watched = value;
    cache.add_raw("a", value);
    value.reset();
    EXPECT_FALSE(watched.expired());
    cache.add_raw("b", nullptr);
    EXPECT_TRUE(watched.expired());
}

TEST(slots, leave_an_evicted_value_to_whoever_holds_it)
{
    CCache<std::string, std::shared_ptr<int>> cache(1);
    const auto value = std::make_shared<int>(5);
    cache.add_raw("a", value);
    EXPECT_EQ(2, value.use_count());
    cache.add_raw("b", nullptr);
    EXPECT_EQ(1, value.use_count());
    EXPECT_EQ(5, *value);
}

TEST(slots, release_their_values_with_the_cache)
{
    const auto value = std::make_shared<int>(5);
    {
        CCache<std::string, std::shared_ptr<int>> cache(2);
        cache.add_raw("a", value);
        cache.add_raw("b", value);
        EXPECT_EQ(3, value.use_count());
    }
    EXPECT_EQ(1, value.use_count());
}

// What it costs ----------------------------------------------------------------------------------

namespace {

// A key that counts its copies and how often its bytes are asked for.
class counted_key {
public:
    counted_key() = default;
    explicit counted_key(std::string text) : _text(std::move(text)) {}
    counted_key(const counted_key& other) : _text(other._text) { ++copies; }

    counted_key& operator=(const counted_key& other)
    {
        _text = other._text;
        ++copies;
        return *this;
    }

    const char* data() const
    {
        ++reads;
        return _text.data();
    }
    size_t size() const { return _text.size(); }

    static inline int copies = 0;
    static inline int reads = 0;

private:
    std::string _text;
};

// Keys too long for a string to hold without memory of its own, all of one length.
counted_key long_key(char which)
{
    return counted_key("a statement that nobody would call short, number " + std::string(1, which));
}

class cost : public testing::Test {
protected:
    cost()
    {
        _cache.add_raw(_a, 1);
        _cache.add_raw(_b, 2);
        counted_key::copies = 0;
    }

    const counted_key _a = long_key('a');
    const counted_key _b = long_key('b');
    const counted_key _c = long_key('c');
    CCache<counted_key, int> _cache{2};
};

}  // namespace

// One hash of the key sought, one comparison with the key found: no other entry is looked at.
TEST_F(cost, of_a_hit_is_one_hash_and_one_comparison_however_many_entries_there_are)
{
    CCache<counted_key, int> cache(500);
    std::vector<counted_key> keys;
    for (int i = 0; i < 500; ++i) {
        keys.emplace_back("number " + std::to_string(i));
        cache.add_raw(keys.back(), i);
    }
    for (const counted_key& key : keys) {
        counted_key::reads = 0;
        cache.lookup_raw(key);
        ASSERT_EQ(3, counted_key::reads);
    }
}

TEST_F(cost, of_a_hit_is_no_allocation_and_no_copy_of_the_key)
{
    EXPECT_EQ(0u, allocations::in([&] { _cache.lookup_raw(_a); }));
    EXPECT_EQ(0u, allocations::in([&] { _cache.lookup(_b); }));
    EXPECT_EQ(0, counted_key::copies);
}

TEST_F(cost, of_a_new_value_for_an_entry_is_no_allocation_and_no_copy_of_the_key)
{
    EXPECT_EQ(0u, allocations::in([&] { _cache.add_raw(_a, 11); }));
    EXPECT_EQ(0, counted_key::copies);
    EXPECT_EQ(11, _cache.lookup(_a));
}

TEST_F(cost, of_a_lookup_without_success_is_no_allocation_and_no_copy_of_the_key)
{
    EXPECT_EQ(0u, allocations::in([&] { EXPECT_FALSE(has(_cache, _c)); }));
    EXPECT_EQ(0, counted_key::copies);
}

TEST_F(cost, of_a_new_entry_in_a_full_cache_is_one_copy_of_the_key_into_the_old_slot)
{
    EXPECT_EQ(0u, allocations::in([&] { _cache.add_raw(_c, 3); }));
    EXPECT_EQ(1, counted_key::copies);
    EXPECT_EQ(0u, allocations::in([&] { _cache.add_new_raw(_a, 1); }));
    EXPECT_EQ(2, counted_key::copies);
}

TEST(cost_of_filling, is_a_queue_node_and_a_place_in_the_set_for_each_entry)
{
    CCache<counted_key, int> cache(50);
    for (int n = 0; n < 50; ++n) {
        const counted_key key(std::to_string(n));  // short, so that it needs no memory itself
        counted_key::copies = 0;
        EXPECT_EQ(2u, allocations::in([&] { cache.add_raw(key, n); })) << n;
        EXPECT_EQ(1, counted_key::copies) << n;
    }
}

// Removing a single key --------------------------------------------------------------------------

TEST_F(remove_key, forgets_the_entry)
{
    add("a");
    add("b");
    EXPECT_TRUE(_cache.remove("a"));
    EXPECT_EQ(1u, _cache.size());
    EXPECT_FALSE(has(_cache, "a"));
    EXPECT_TRUE(has(_cache, "b"));
}

TEST_F(remove_key, says_when_there_is_no_such_entry)
{
    add("a");
    EXPECT_FALSE(_cache.remove("b"));
    EXPECT_TRUE(_cache.remove("a"));
    EXPECT_FALSE(_cache.remove("a"));
    EXPECT_EQ(0u, _cache.size());
}

TEST_F(remove_key, keeps_the_order_of_the_others)
{
    for (const char* removed : {"a", "b", "c"}) {
        add("a");
        add("b");
        add("c");
        _cache.remove(removed);
        std::string left = "abc";
        left.erase(left.find(removed), 1);
        EXPECT_EQ(left, order());
    }
}

TEST_F(remove_key, gives_the_freed_slot_to_the_next_entry)
{
    add("a", 1);
    const handle_t b = add("b", 2);
    add("c", 3);
    _cache.remove("b");
    EXPECT_FALSE(b.ptr->valid);

    const handle_t d = add("d", 4);
    EXPECT_EQ(&*b.ptr, &*d.ptr);
    EXPECT_EQ(3u, _cache.size());
    EXPECT_EQ("acd", order());
}

TEST_F(remove_key, lets_freed_slots_wait_behind_the_entries)
{
    const handle_t a = add("a", 1);
    add("b", 2);
    const handle_t c = add("c", 3);
    _cache.remove("c");
    _cache.remove("a");
    _cache.lookup("b");  // moves in front of the free ones
    EXPECT_EQ(&*a.ptr, &*add("d", 4).ptr) << "freed last, first in the queue of the free";
    EXPECT_EQ(&*c.ptr, &*add("e", 5).ptr);
    EXPECT_EQ("bde", order());
}

TEST_F(remove_key, works_while_slots_have_not_been_used_yet)
{
    const handle_t a = add("a", 1);
    _cache.remove("a");
    EXPECT_EQ(&*a.ptr, &*add("b", 2).ptr) << "a freed slot goes before a new one";
    EXPECT_NE(&*a.ptr, &*add("c", 3).ptr);
    EXPECT_EQ(2u, _cache.size());
    EXPECT_EQ("bc", order());
}

TEST_F(remove_key, empties_the_cache_for_good_use)
{
    for (const char* key : {"a", "b", "c"})
        add(key);
    for (const char* key : {"b", "c", "a"})
        EXPECT_TRUE(_cache.remove(key));
    EXPECT_EQ(0u, _cache.size());
    add("d");
    add("e");
    EXPECT_EQ("de", order());
}

TEST(remove_key_of_a_shared_value, releases_it)
{
    CCache<std::string, std::shared_ptr<int>> cache(2);
    const auto value = std::make_shared<int>(5);
    cache.add_raw("a", value);
    cache.remove("a");
    EXPECT_EQ(1, value.use_count());
}

// Failures ---------------------------------------------------------------------------------------

namespace {

// A byte string, as key and as value, whose copies fail on demand.
class fragile {
public:
    fragile() = default;
    explicit fragile(std::string text) : _text(std::move(text)) {}
    fragile(const fragile& other) : _text(other.read()) {}

    fragile& operator=(const fragile& other)
    {
        _text = other.read();
        return *this;
    }

    const char* data() const { return _text.data(); }
    size_t size() const { return _text.size(); }
    const std::string& text() const { return _text; }

    static inline bool all_break = false;                 // every copy fails
    static constexpr std::string_view breaks = "breaks";  // the copy of this one fails always

private:
    const std::string& read() const
    {
        if (all_break || _text == breaks) throw std::runtime_error("broken copy");
        return _text;
    }

    std::string _text;
};

class failing_add : public testing::Test {
protected:
    using fragile_cache = CCache<fragile, fragile>;

    void fill(const std::string& keys)
    {
        for (const char key : keys)
            add(std::string(1, key));
    }

    fragile_cache::handle_t add(const std::string& key) { return add(key, "value of " + key); }

    fragile_cache::handle_t add(const std::string& key, const std::string& val)
    {
        return _cache.add_raw(fragile(key), fragile(val));
    }

    // "" where there is none; the entry becomes the most recently used.
    std::string val(const std::string& key)
    {
        try {
            return _cache.lookup(fragile(key)).text();
        } catch (const cache_entry_not_found&) {
            return "";
        }
    }

    fragile_cache _cache{3};
    const std::string _broken{fragile::breaks};
};

}  // namespace

TEST_F(failing_add, of_a_key_leaves_no_entry)
{
    fill("ab");
    EXPECT_THROW(add(_broken), std::runtime_error);
    EXPECT_EQ(2u, _cache.size());
    EXPECT_EQ("", val(_broken));
    EXPECT_EQ("value of a", val("a"));
    EXPECT_EQ("value of b", val("b"));
}

TEST_F(failing_add, of_a_value_leaves_no_entry)
{
    fill("ab");
    EXPECT_THROW(add("c", _broken), std::runtime_error);
    EXPECT_EQ(2u, _cache.size());
    EXPECT_EQ("", val("c"));
    add("c");
    EXPECT_EQ(3u, _cache.size());
    EXPECT_EQ("value of c", val("c"));
}

TEST_F(failing_add, to_a_full_cache_costs_the_least_recently_used_entry)
{
    for (const bool broken_key : {true, false}) {
        fill("abc");
        EXPECT_THROW(broken_key ? add(_broken) : add("d", _broken), std::runtime_error);
        EXPECT_EQ(2u, _cache.size());
        EXPECT_EQ("", val("a"));
        EXPECT_EQ("", val("d"));
        EXPECT_EQ("value of b", val("b"));
        EXPECT_EQ("value of c", val("c"));
    }
}

TEST_F(failing_add, to_a_full_cache_frees_the_slot_for_the_next_entry)
{
    const auto a = add("a");
    fill("bc");
    EXPECT_THROW(add(_broken), std::runtime_error);
    EXPECT_EQ(&*a.ptr, &*add("d").ptr);
    EXPECT_EQ(3u, _cache.size());
    add("e");
    EXPECT_EQ("", val("b")) << "the least recently used one of b, c and d";
    EXPECT_EQ("value of c", val("c"));
    EXPECT_EQ("value of d", val("d"));
}

TEST_F(failing_add, releases_the_value_of_the_evicted_entry)
{
    CCache<fragile, std::shared_ptr<int>> cache(1);
    const auto value = std::make_shared<int>(5);
    cache.add_raw(fragile("a"), value);
    EXPECT_THROW(cache.add_raw(fragile(_broken), nullptr), std::runtime_error);
    EXPECT_EQ(1, value.use_count());
}

TEST_F(failing_add, of_a_new_value_leaves_the_entry_with_its_old_one)
{
    fill("abc");
    EXPECT_THROW(add("a", _broken), std::runtime_error);
    EXPECT_EQ(3u, _cache.size());
    EXPECT_EQ("value of a", val("a"));
}

TEST_F(failing_add, leaves_a_good_cache_even_where_values_cannot_be_released)
{
    for (const char* keys : {"ab", "abc"}) {
        fill(keys);
        fragile::all_break = true;
        EXPECT_THROW(add("d"), std::runtime_error);
        fragile::all_break = false;

        EXPECT_EQ(2u, _cache.size());
        EXPECT_EQ("", val("d"));
        add("d");
        EXPECT_EQ(3u, _cache.size());
        EXPECT_EQ("value of d", val("d"));
        for (const char* key : {"a", "b", "c", "d"})
            _cache.remove(fragile(key));
    }
}

TEST(memory_running_out, at_any_point_of_an_insertion_leaves_no_entry)
{
    const std::string key(100, 'k');
    const std::string val(100, 'v');
    size_t n = 1;
    for (bool failed = true; failed; ++n) {
        ASSERT_LT(n, 20u) << "the insertion should succeed at last";
        CCache<std::string, std::string> cache(2);
        cache.add_raw("first", "1");
        failed = false;
        {
            const allocations::fail_at broken(n);
            try {
                cache.add_raw(key, val);
            } catch (const std::bad_alloc&) {
                failed = true;
            }
            EXPECT_EQ(failed, broken.reached());
        }
        EXPECT_EQ(failed ? 1u : 2u, cache.size());
        EXPECT_EQ(!failed, has(cache, key));

        cache.add_raw(key, val);
        EXPECT_EQ(2u, cache.size());
        EXPECT_EQ(val, cache.lookup(key));
        EXPECT_EQ("1", cache.lookup("first"));
    }
    EXPECT_GT(n, 4u) << "queue node, key, value and place in the set can fail";
}

TEST(memory_running_out, for_the_key_in_a_full_cache_leaves_room_for_the_next_entry)
{
    const std::string long_text(100, 'k');
    CCache<std::string, int> cache(2);
    cache.add_raw("a", 1);
    cache.add_raw("b", 2);
    {
        const allocations::fail_at broken(1);
        EXPECT_THROW(cache.add_raw(long_text, 3), std::bad_alloc);
    }
    EXPECT_EQ(1u, cache.size());
    EXPECT_FALSE(has(cache, "a"));
    cache.add_raw(long_text, 3);
    EXPECT_EQ(2u, cache.size());
    EXPECT_EQ(2, cache.lookup("b"));
    EXPECT_EQ(3, cache.lookup(long_text));
}

// Assertions: a host that writes through its handles where it should not -------------------------

TEST_F(invariants, an_entry_in_the_set_is_valid)
{
    add("a").ptr->valid = false;
    EXPECT_STOPS(_cache.lookup_raw("a"), "iset->ptr->valid");
    EXPECT_STOPS(_cache.lookup("a"), "iset->ptr->valid");
    EXPECT_STOPS(_cache.add_raw("a", 1), "slot->valid");
}

TEST_F(invariants, a_queue_node_refers_back_to_its_slot)
{
    const handle_t a = add("a");
    a.ptr->qpos = add("b").ptr->qpos;
    EXPECT_STOPS(_cache.lookup_raw("a"), "iset->ptr->qpos->ptr==iset->ptr");
    EXPECT_STOPS(_cache.add_raw("a", 1), "slot->qpos->ptr==slot");
}

TEST_F(invariants, an_entry_to_be_evicted_is_valid)
{
    const handle_t a = add("a");
    add("b");
    add("c");
    a.ptr->valid = false;
    EXPECT_STOPS(_cache.add_raw("d", 1), "deleteme.ptr->valid");
}

TEST(invariants_of_a_large_cache, an_entry_to_be_evicted_is_in_the_set)
{
    // A changed key may stand by chance where its old one stood in the set, but not 50 of them.
    cache_t cache(50);
    for (int n = 0; n < 50; ++n)
        cache.add_raw(std::to_string(n), n).ptr->key += " changed";
    const auto evict_all = [&] {
        for (int n = 0; n < 50; ++n)
            cache.add_raw("new entry " + std::to_string(n), n);
    };
    EXPECT_STOPS(evict_all(), "_hashtable.find(deleteme)!=_hashtable.end()");
}

TEST_F(invariants, a_queue_node_points_to_a_slot)
{
    cache_t cache(1);
    const handle_t only = cache.add_raw("a", 1);
    only.ptr->qpos->ptr = std::next(only.ptr);
    EXPECT_STOPS(cache.add_raw("b", 2), "deleteme.ptr!=_vals.end()");
}

TEST_F(invariants, without_a_free_slot_every_queue_node_is_in_use)
{
    // The queue node that is freed with "a" is the one of "c", which frees it once more.
    const handle_t a = add("a");
    add("b");
    const handle_t c = add("c");
    a.ptr->qpos = c.ptr->qpos;
    _cache.remove("a");
    _cache.remove("c");
    add("d");
    EXPECT_STOPS(_cache.add_raw("e", 1), "_queue.size()==_size");
}

TEST_F(invariants, a_real_slot_points_to_no_other_key)
{
    const std::string key = "a";
    const handle_t a = add("a");
    add("b");
    add("c");
    a.ptr->keyptr = &key;
    EXPECT_STOPS(_cache.add_raw("d", 1), "handle.ptr->keyptr==__null");
}

TEST_F(invariants, a_free_slot_is_the_one_of_its_queue_node)
{
    const handle_t a = add("a");
    const handle_t b = add("b");
    _cache.remove("a");
    a.ptr->qpos = b.ptr->qpos;
    EXPECT_STOPS(_cache.add_raw("c", 1), "handle.ptr->qpos==_unused");
}

TEST_F(invariants, the_set_holds_exactly_the_valid_slots)
{
    add("a");
    EXPECT_STOPS(_cache.add_new_raw("a", 1), "_hashtable.size()==_size");

    add("b");
    add("c");
    EXPECT_STOPS(_cache.add_new_raw("c", 1), "_hashtable.size()==_size");
}
