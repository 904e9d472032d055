#pragma once

// Counts a program's allocations and lets one of them fail, those of the library included: the
// operator new of a program takes the place of everybody's. For one source file of a program.

#include <cstddef>
#include <cstdlib>
#include <new>

namespace allocations {

inline size_t made = 0;     // since the program started
inline size_t failing = 0;  // the one that throws, counted like `made`; 0 for none

// The number of allocations that `work` makes.
template <typename Work>
size_t in(Work work)
{
    const size_t before = made;
    work();
    return made - before;
}

// While it lives, the `n`-th allocation from now, counting from 1, finds no memory.
class fail_at {
public:
    explicit fail_at(size_t n) { failing = made + n; }
    ~fail_at() { failing = 0; }

    fail_at(const fail_at&) = delete;
    fail_at& operator=(const fail_at&) = delete;

    // Whether that allocation has been asked for.
    bool reached() const { return made >= failing; }
};

}  // namespace allocations

// Kept from being inlined, or a compiler that sees free() behind what came from new would warn.

__attribute__((noinline)) void* operator new(size_t size)
{
    if (++allocations::made == allocations::failing) throw std::bad_alloc();
    if (void* const memory = std::malloc(size != 0 ? size : 1)) return memory;
    throw std::bad_alloc();
}

// A sanitizer has one of its own, whose memory must not be freed here.
__attribute__((noinline)) void* operator new(size_t size, const std::nothrow_t&) noexcept
{
    if (++allocations::made == allocations::failing) return nullptr;
    return std::malloc(size != 0 ? size : 1);
}

__attribute__((noinline)) void operator delete(void* memory) noexcept { std::free(memory); }

__attribute__((noinline)) void operator delete(void* memory, size_t) noexcept { std::free(memory); }
