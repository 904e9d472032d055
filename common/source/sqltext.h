#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "trend_api.h"

// The SQL texts that are assembled in a loop. Pure functions of records and numbers: they report
// nothing, touch no database and take identifiers as valid.

namespace toolkit::trend {

// Creates a trend table with a column for everything the parameters keep; as "tmp_table" with
// `temp`.
tk_string create_trend_table_text(int64_t device, unsigned long period,
                                  const std::vector<CParamProperties>& params, bool temp);

// Inserts a row of the parameters' values. Placeholders: time, percent_valid, then one per column.
tk_string insert_sample_text(int64_t device, unsigned long period,
                             const std::vector<CParamProperties>& params);

// Inserts one coarse row made of `ratio` fine rows. Placeholders: the time at which the fine rows
// begin and how many of them to pass over.
tk_string roll_up_text(int64_t device, unsigned long fine, unsigned long coarse,
                       unsigned long ratio, const std::vector<CParamProperties>& params);

// Copies a trend table into "tmp_table", which has the columns of `params`. With `old_params`,
// which then match entry for entry, a column that the old parameter did not keep is filled with
// NULL; without, every column is there to be copied.
tk_string copy_rows_text(int64_t device, unsigned long period,
                         const std::vector<CParamProperties>& params,
                         const std::vector<CParamProperties>& old_params);

// Reads the rows of the periods' tables in one query. Columns: period, time, percent_valid, then
// the parameters' columns. Placeholders: for each period its number, the bounds that are not -1,
// and with `no_overlap` its upper bound twice; then the limit and, if there is one, the offset.
tk_string read_text(int64_t device, const std::vector<CPeriodProperties>& periods,
                    const std::vector<CParamProperties>& params, const timebounds_t& bounds,
                    bool no_overlap, bool ascending, bool has_offset);

// Inserts a row as insert_sample_text() does, with its placeholders, or gives the one that has its
// time these values.
tk_string merge_sample_text(int64_t device, unsigned long period,
                            const std::vector<CParamProperties>& params);

// Computes the coarse row of the fine rows after one time and up to another, with the columns of
// scan_text().
tk_string rolled_up_text(int64_t device, unsigned long fine,
                         const std::vector<CParamProperties>& params);

// Counts in each of the columns the rows that have neither a number nor NULL there.
tk_string wrong_types_text(const tk_string& table, const std::vector<tk_string>& columns);

// Reads one table after a time, oldest row first. Columns: time, and with `params` percent_valid
// and the parameters' columns. Placeholder: the time.
tk_string scan_text(int64_t device, unsigned long period,
                    const std::vector<CParamProperties>* params);

// Reads one table's times within bounds, ascending. Columns: time, percent_valid, and whether the
// row has any value. Placeholders: the bounds.
tk_string coverage_text(int64_t device, unsigned long period,
                        const std::vector<CParamProperties>& params);

// Deletes the rows within the bounds, which stand in the text.
tk_string clear_text(int64_t device, unsigned long period, const timebounds_t& bounds);

}  // namespace toolkit::trend
