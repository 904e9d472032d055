#pragma once

// Memory that runs out: SQLite's through the allocator that it is configured with, the library's
// through operator new, each at the n-th request.

#include <cstddef>

namespace memory {

enum source_t { SQLITE, OURS };

// Puts the failing allocator behind SQLite. Before SQLite is used.
void install();

// Fails the n-th request from now, counting from 1, and with `persistent` all after it.
void arm(source_t source, size_t n, bool persistent);

// Ends that; how many requests failed.
size_t disarm();

// Blocks of operator new that have not been deleted.
size_t blocks();

// While one lives, requests are neither counted nor failed: for what is not the library's.
class unfailing {
public:
    unfailing();
    ~unfailing();

    unfailing(const unfailing&) = delete;
    unfailing& operator=(const unfailing&) = delete;

private:
    bool _was;
};

}  // namespace memory
