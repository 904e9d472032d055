#include "memory.h"

#include <sqlite3.h>

#include <cstdlib>
#include <new>

namespace memory {

namespace {

bool armed = false;
bool persistent = false;
source_t source = SQLITE;
size_t wanted = 0;
size_t requests = 0;
size_t struck = 0;
size_t live = 0;

bool fails(source_t asked)
{
    if (!armed || asked != source) return false;
    ++requests;
    if (requests != wanted && !(persistent && requests > wanted)) return false;
    ++struck;
    return true;
}

sqlite3_mem_methods original;

void* allocate(int size) { return fails(SQLITE) ? nullptr : original.xMalloc(size); }

void* reallocate(void* block, int size)
{
    return fails(SQLITE) ? nullptr : original.xRealloc(block, size);
}

}  // namespace

void install()
{
    sqlite3_config(SQLITE_CONFIG_GETMALLOC, &original);
    sqlite3_mem_methods failing = original;
    failing.xMalloc = allocate;
    failing.xRealloc = reallocate;
    sqlite3_config(SQLITE_CONFIG_MALLOC, &failing);
}

void arm(source_t which, size_t n, bool from_then_on)
{
    source = which;
    wanted = n;
    persistent = from_then_on;
    requests = 0;
    struck = 0;
    armed = true;
}

size_t disarm()
{
    armed = false;
    const size_t count = struck;
    struck = 0;
    return count;
}

size_t blocks() { return live; }

unfailing::unfailing() : _was(armed) { armed = false; }
unfailing::~unfailing() { armed = _was; }

}  // namespace memory

// Kept from being inlined, or a compiler that sees free() behind what came from new would warn.

__attribute__((noinline)) void* operator new(size_t size)
{
    if (memory::fails(memory::OURS)) throw std::bad_alloc();
    void* const block = std::malloc(size != 0 ? size : 1);
    if (block == nullptr) throw std::bad_alloc();
    ++memory::live;
    return block;
}

// A sanitizer's own would otherwise come in between.
__attribute__((noinline)) void* operator new(size_t size, const std::nothrow_t&) noexcept
{
    if (memory::fails(memory::OURS)) return nullptr;
    void* const block = std::malloc(size != 0 ? size : 1);
    if (block != nullptr) ++memory::live;
    return block;
}

__attribute__((noinline)) void operator delete(void* block) noexcept
{
    if (block != nullptr) --memory::live;
    std::free(block);
}

__attribute__((noinline)) void operator delete(void* block, size_t) noexcept
{
    operator delete(block);
}
