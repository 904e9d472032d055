#pragma once

// What the tests of damaged files share: the files before, what somebody else may have written into
// them, and the ends that they may lead to.

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "disk.h"

namespace damage {

// Where choices come from: a number below `n`.
using choice_t = std::function<size_t(size_t n)>;

// A log that was closed, two of older schemas, one with a write-ahead log that a crash has left,
// and one with a journal that has to be rolled back.
std::vector<disk::image_t> intact_images();

// SQL that changes a cell or a table of a log, as no log would.
std::string foreign_change(const choice_t& below);

// Runs it on the log's file, as far as that goes.
void change(const std::string& sql);

// Whether these last lines on standard error end with an assertion that stored configuration, or
// stored values in an SQL function, are documented to trip.
bool is_documented(const std::string& said);

}  // namespace damage
