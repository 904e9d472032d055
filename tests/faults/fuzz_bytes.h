#pragma once

#include <cstddef>
#include <cstdint>

// Takes decisions from the bytes, and the first one of each when they have run out.
class fuzz_bytes_t {
public:
    fuzz_bytes_t(const uint8_t* data, size_t size) : _at(data), _end(data + size) {}

    bool more() const { return _at != _end; }
    unsigned int below(unsigned int n) { return more() ? *_at++ % n : 0; }

    template <typename Value, size_t N>
    Value one_of(const Value (&values)[N])
    {
        return values[below(N)];
    }

private:
    const uint8_t* _at;
    const uint8_t* _end;
};
