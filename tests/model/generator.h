#pragma once

#include <cstddef>
#include <cstdint>

#include "operations.h"

namespace model {

// A sequence of `count` operations that makes for a lively log, the same for the same seed on every
// machine. Only the model is asked what would be interesting next; no log is involved.
operations_t generate(uint64_t seed, size_t count);

}  // namespace model
