#pragma once

#include <sqlite3.h>

#include <cstddef>

#include "throwing.h"

namespace toolkit::trend {

// The values of a row, one column after the other. A read has hundreds of them in a row: what is
// there is taken without a call of ours, all else as CStatement::column() does.
class row_values_t {
public:
    row_values_t(const CStatement& row, size_t first)
        : _row(row), _stmt(CThrowing::handle(row)), _col(first)
    {
    }

    int next(COptVal& out)
    {
        const size_t col = _col++;
        sqlite3_value* const value = sqlite3_column_value(_stmt, static_cast<int>(col));
        if (sqlite3_value_type(value) != SQLITE_FLOAT) return _row.column(col, out);
        out._val = sqlite3_value_double(value);
        return 0;
    }

private:
    const CStatement& _row;
    sqlite3_stmt* const _stmt;
    size_t _col;
};

}  // namespace toolkit::trend
