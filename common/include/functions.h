#pragma once

#include "trend_base.h"

struct sqlite3;

// Installs the library's aggregate functions on a connection, for SQL of the host's own:
//
//   pfmin(x), pfmax(x), pfavg(x)   minimum, maximum, average of power factors
//   pfpctavg(x, pct)               average of power factors weighted by `pct`
//   pctavg(x, pct)                 average of any values weighted by `pct`
//
// A power factor is clamped to [-1, 1] and lies on a scale that runs from 0 up to unity, through it
// and on along the negative values towards -0; exactly unity comes back as +1. A weight is clamped
// to [0, 100]. Rows whose first argument is NULL are skipped; a group without usable rows, or with
// no weight at all, gives NULL. Any other argument must be a number: text, a blob or a NULL weight
// stops the process with an assertion.
//
// 0 on success; -1 at the first function that cannot be created, after one line about it on
// standard error. `pdb` must not be null.
extern "C" TREND_EXPORT int register_custom_functions(sqlite3* pdb);
