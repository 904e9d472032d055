#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

// The rows that have been closed and not committed: a ring of fixed size, oldest first.

namespace toolkit::trend {

struct queued_row_t {
    uint32_t _device = 0;
    int64_t _time = 0;  // milliseconds, the end of the interval
    double _percent_valid = 0.0;
    const double* _values = nullptr;  // NaN where absent; valid until the next call
    size_t _num_values = 0;
};

class CRowQueue {
public:
    static constexpr size_t HEADER_WORDS = 3;

    explicit CRowQueue(size_t bytes);

    // Makes sure that rows of so many values can be taken; they must fit.
    void prepare(size_t num_values);

    size_t capacity() const { return _capacity; }  // in words
    size_t size() const { return _rows; }
    size_t bytes() const { return _used * sizeof(uint64_t); }
    static size_t words(size_t num_values) { return HEADER_WORDS + num_values; }

    bool has_room(size_t num_values) const { return words(num_values) <= _capacity - _used; }

    // There must be room.
    void push(const queued_row_t& row);

    // The oldest row goes. There must be one.
    queued_row_t pop();

    // Calls visit(row) for all, oldest first, until it returns anything but 0, which is the result.
    template <typename Visit>
    int visit(const Visit& visit)
    {
        size_t at = _head;
        for (size_t i = 0; i < _rows; ++i)
            if (const int failed = visit(read(at))) return failed;
        return 0;
    }

    // The same device by device. It needs memory for a moment, 16 bytes a row.
    template <typename Visit>
    int visit_by_device(const Visit& visit)
    {
        for (const place_t& place : places_by_device()) {
            size_t at = place._at;
            if (const int failed = visit(read(at))) return failed;
        }
        return 0;
    }

    // Calls keep(row) for all, oldest first, and lets go of those for which it is false. It may
    // change the row's time.
    template <typename Keep>
    void retain(const Keep& keep)
    {
        for (size_t left = _rows; left > 0; --left) {
            queued_row_t row = pop();
            if (keep(row)) push(row);
        }
    }

private:
    struct place_t {
        uint32_t _device;
        size_t _at;  // the row's first word
    };

    std::vector<place_t> places_by_device() const;

    // Takes the row at that word and moves on to the next.
    queued_row_t read(size_t& at);

    uint64_t get(size_t& at) const;
    void put(uint64_t word);

    size_t _capacity;
    std::unique_ptr<uint64_t[]> _words;
    size_t _head = 0;
    size_t _used = 0;
    size_t _rows = 0;
    std::vector<double> _values;  // of the row that was read last
};

}  // namespace toolkit::trend
