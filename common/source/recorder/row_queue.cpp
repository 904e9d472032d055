#include "recorder/row_queue.h"

#include <algorithm>
#include <cstring>

namespace toolkit::trend {

namespace {

template <typename To, typename From>
To bits_of(From from)
{
    static_assert(sizeof(To) == sizeof(From));
    To to;
    std::memcpy(&to, &from, sizeof to);
    return to;
}

}  // namespace

// Not filled: what is never used needs no memory but addresses.
CRowQueue::CRowQueue(size_t bytes)
    : _capacity(bytes / sizeof(uint64_t)), _words(new uint64_t[bytes / sizeof(uint64_t)])
{
}

void CRowQueue::prepare(size_t num_values)
{
    if (_values.size() < num_values) _values.resize(num_values);
}

void CRowQueue::push(const queued_row_t& row)
{
    put(uint64_t{row._device} << 32 | row._num_values);
    put(static_cast<uint64_t>(row._time));
    put(bits_of<uint64_t>(row._percent_valid));
    for (size_t i = 0; i < row._num_values; ++i)
        put(bits_of<uint64_t>(row._values[i]));
    ++_rows;
}

queued_row_t CRowQueue::pop()
{
    const queued_row_t row = read(_head);
    _used -= words(row._num_values);
    --_rows;
    return row;
}

queued_row_t CRowQueue::read(size_t& at)
{
    queued_row_t row;
    const uint64_t head = get(at);
    row._device = static_cast<uint32_t>(head >> 32);
    row._num_values = static_cast<size_t>(head & 0xffffffff);
    row._time = static_cast<int64_t>(get(at));
    row._percent_valid = bits_of<double>(get(at));
    for (size_t i = 0; i < row._num_values; ++i)
        _values[i] = bits_of<double>(get(at));
    row._values = _values.data();
    return row;
}

std::vector<CRowQueue::place_t> CRowQueue::places_by_device() const
{
    std::vector<place_t> places;
    places.reserve(_rows);
    size_t at = _head;
    for (size_t i = 0; i < _rows; ++i) {
        const uint64_t head = _words[at];
        places.push_back({static_cast<uint32_t>(head >> 32), at});
        at = (at + words(static_cast<size_t>(head & 0xffffffff))) % _capacity;
    }
    // Oldest first within a device: the ring begins at its head.
    const auto age = [&](const place_t& place) {
        return place._at < _head ? place._at + _capacity : place._at;
    };
    std::sort(places.begin(), places.end(), [&](const place_t& a, const place_t& b) {
        return a._device != b._device ? a._device < b._device : age(a) < age(b);
    });
    return places;
}

uint64_t CRowQueue::get(size_t& at) const
{
    const uint64_t word = _words[at];
    if (++at == _capacity) at = 0;
    return word;
}

void CRowQueue::put(uint64_t word)
{
    size_t at = _head + _used;
    if (at >= _capacity) at -= _capacity;
    _words[at] = word;
    ++_used;
}

}  // namespace toolkit::trend
