#pragma once

#include <cstddef>
#include <functional>

#include "operations.h"

namespace model {

// Cuts a failing sequence down: parts of it are left out, the large ones first, and what is left is
// made plainer, for as long as `fails` says that it still fails and at most `tries` times.
operations_t shrink(operations_t operations, const std::function<bool(const operations_t&)>& fails,
                    size_t tries);

}  // namespace model
