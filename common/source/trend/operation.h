#pragma once

#include "database.h"
#include "report.h"
#include "throwing.h"
#include "transcheck.h"
#include "translevel.h"
#include "trend_api.h"

// What every chapter of CLog works with. Every operation has four beats:
//
//   guard    CTransCheck sees that the nesting level is afterwards what it was before
//   checks   arguments, in a fixed order; a refusal is one line and -1
//   level    CTransLevel opens a transaction level and rolls it back unless it has been ended
//   work     early returns pass the code of what failed on; level.end() is the only way to keep it
//
// around which a handler answers memory that runs out: guard and level have unwound by then. The
// handler cannot see the function's own names, so the signature stands in front of the function.
// Connection and statements have handlers of their own, which CThrowing goes without: it is the
// operation that reports, once.
// Texts of one piece stand at their operation, those assembled in a loop in sqltext.cpp, the
// columns of a parameter in columns.cpp.
