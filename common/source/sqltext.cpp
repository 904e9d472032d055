#include "sqltext.h"

#include <algorithm>
#include <string_view>

#include "columns.h"
#include "sqlformat.h"

namespace toolkit::trend {

namespace {

constexpr size_t FIXED_SIZE = 192;  // of what surrounds the columns in any of the texts, at most

void reserve_for_columns(tk_string& text, const std::vector<CParamProperties>& params)
{
    text.reserve(FIXED_SIZE + columns_size(params));
}

// Writes ",?" for every column of the parameters.
char* write_placeholders(char* out, const std::vector<CParamProperties>& params)
{
    for (const CParamProperties& param : params)
        visit_aggregates([&](const aggregate_t& aggregate) {
            if (param.*aggregate._kept) out = write_piece(out, ",?");
            return 0;
        });
    return out;
}

size_t placeholders_size(const std::vector<CParamProperties>& params)
{
    return params.size() * AGGREGATES.size() * (sizeof(",?") - 1);
}

// One expression of the roll-up: what a column of the coarse row is made of.
void append_roll_up(tk_string& text, const CParamProperties& param, const aggregate_t& aggregate)
{
    const char* prefix = operation_prefix(param._type);
    const std::string_view name = aggregate._name;
    if (name == "avg")
        append_sql(text, ", ", prefix, "pctavg(param_", param._index, "_avg, percent_valid)");
    else if (name == "actual")
        // Bare on purpose: SQLite takes it from the row in which the last built-in min() or max()
        // of the list found its value, the group's latest row where max(time) is the only one.
        append_sql(text, ", param_", param._index, "_actual");
    else if (name == "sum")
        append_sql(text, ", sum(param_", param._index, "_sum)");
    else
        append_sql(text, ", ", prefix, name, "(param_", param._index, "_", name, ")");
}

// What all of the parameter's columns are made of.
void append_roll_up(tk_string& text, const CParamProperties& param)
{
    for (const aggregate_t& aggregate : AGGREGATES)
        if (param.*aggregate._kept) append_roll_up(text, param, aggregate);
}

}  // namespace

tk_string create_trend_table_text(int64_t device, unsigned long period,
                                  const std::vector<CParamProperties>& params, bool temp)
{
    tk_string text;
    reserve_for_columns(text, params);
    if (temp)
        append_sql(text, "CREATE TABLE tmp_table");
    else
        append_sql(text, "CREATE TABLE trends_", device, "_", period);
    append_sql(text, " (time INTEGER PRIMARY KEY NOT NULL, percent_valid REAL NOT NULL");
    for (const CParamProperties& param : params)
        for (const tk_string& name : column_list(param))
            append_sql(text, ", ", name, " REAL");
    append_sql(text, ")");
    return text;
}

tk_string insert_sample_text(int64_t device, unsigned long period,
                             const std::vector<CParamProperties>& params)
{
    // Written in place: a device has hundreds of columns, and every snapshot names each one.
    tk_string text;
    text.resize(FIXED_SIZE + columns_size(params) + placeholders_size(params));
    char* out = write_pieces(text.data(), "INSERT INTO trends_", device, "_", period,
                             " (time, percent_valid");
    out = write_columns(out, params);
    out = write_pieces(out, ") VALUES (?,?");
    out = write_placeholders(out, params);
    out = write_pieces(out, ")");
    text.resize(static_cast<size_t>(out - text.data()));
    return text;
}

tk_string roll_up_text(int64_t device, unsigned long fine, unsigned long coarse,
                       unsigned long ratio, const std::vector<CParamProperties>& params)
{
    tk_string text;
    reserve_for_columns(text, params);
    append_sql(text, "INSERT INTO trends_", device, "_", coarse,
               " SELECT max(time), avg(percent_valid)");
    for (size_t i = 0; i < params.size(); ++i) {
        TREND_ASSERT(params[i]._index>=0);
        append_roll_up(text, params[i]);
    }
    append_sql(text, " FROM (SELECT * FROM trends_", device, "_", fine, " WHERE time >= ? LIMIT ",
               ratio, " OFFSET ?)");
    return text;
}

tk_string copy_rows_text(int64_t device, unsigned long period,
                         const std::vector<CParamProperties>& params,
                         const std::vector<CParamProperties>& old_params)
{
    tk_string text;
    reserve_for_columns(text, params);
    append_sql(text, "INSERT INTO tmp_table SELECT time, percent_valid");
    for (size_t i = 0; i < params.size(); ++i) {
        std::vector<tk_string> old_columns;
        if (!old_params.empty()) {
            TREND_ASSERT(old_params[i]._index==params[i]._index);
            old_columns = column_list(old_params[i]);
        } else {
            TREND_ASSERT(old_columns.empty());
        }
        for (const tk_string& name : column_list(params[i])) {
            const bool is_new =
                !old_params.empty() &&
                std::find(old_columns.begin(), old_columns.end(), name) == old_columns.end();
            append_sql(text, ", ", is_new ? "NULL" : name.c_str());
        }
    }
    append_sql(text, " FROM trends_", device, "_", period);
    return text;
}

tk_string read_text(int64_t device, const std::vector<CPeriodProperties>& periods,
                    const std::vector<CParamProperties>& params, const timebounds_t& bounds,
                    bool no_overlap, bool ascending, bool has_offset)
{
    tk_string head(FIXED_SIZE + columns_size(params), '\0');
    char* out = write_pieces(head.data(), "SELECT ?, time, percent_valid");
    out = write_columns(out, params);
    out = write_pieces(out, " FROM trends_", device, "_");
    head.resize(static_cast<size_t>(out - head.data()));

    tk_string filter = " WHERE 1 ";
    if (bounds.first != -1) filter += "AND time >= ? ";
    if (bounds.second != -1) filter += "AND time <= ? ";
    if (no_overlap) filter += "AND (time < ? OR ? < 0) ";

    constexpr std::string_view UNION_ALL = "UNION ALL ";
    tk_string text;
    text.reserve(periods.size() * (UNION_ALL.size() + head.size() + MAX_DIGITS + filter.size()) +
                 FIXED_SIZE);
    for (const CPeriodProperties& period : periods) {
        if (!text.empty()) append_sql(text, UNION_ALL);
        append_sql(text, head, period._period, filter);
    }
    append_sql(text, "ORDER BY time ", ascending ? "ASC" : "DESC", " LIMIT ?");
    if (has_offset) append_sql(text, " OFFSET ?");
    return text;
}

tk_string merge_sample_text(int64_t device, unsigned long period,
                            const std::vector<CParamProperties>& params)
{
    tk_string text = insert_sample_text(device, period, params);
    append_sql(text, " ON CONFLICT (time) DO UPDATE SET percent_valid = excluded.percent_valid");
    for (const CParamProperties& param : params)
        for (const tk_string& name : column_list(param))
            append_sql(text, ", ", name, " = excluded.", name);
    return text;
}

tk_string rolled_up_text(int64_t device, unsigned long fine,
                         const std::vector<CParamProperties>& params)
{
    tk_string text;
    reserve_for_columns(text, params);
    append_sql(text, "SELECT max(time), avg(percent_valid)");
    for (const CParamProperties& param : params)
        append_roll_up(text, param);
    append_sql(text, " FROM trends_", device, "_", fine, " WHERE time > ? AND time <= ?");
    return text;
}

tk_string wrong_types_text(const tk_string& table, const std::vector<tk_string>& columns)
{
    tk_string text = "SELECT ";
    for (const tk_string& column : columns)
        append_sql(text, &column == &columns.front() ? "" : ", ", "sum(typeof(", column,
                   ") NOT IN ('real', 'null'))");
    append_sql(text, " FROM ", table);
    return text;
}

tk_string scan_text(int64_t device, unsigned long period,
                    const std::vector<CParamProperties>* params)
{
    tk_string text = "SELECT time";
    if (params) {
        append_sql(text, ", percent_valid");
        for (const CParamProperties& param : *params)
            for (const tk_string& name : column_list(param))
                append_sql(text, ", ", name);
    }
    append_sql(text, " FROM trends_", device, "_", period, " WHERE time > ? ORDER BY time");
    return text;
}

tk_string coverage_text(int64_t device, unsigned long period,
                        const std::vector<CParamProperties>& params)
{
    // By so many columns, since SQLite limits the arguments of a function and the depth of an
    // expression. coalesce() wants two arguments at least.
    constexpr size_t GROUP = 90;
    tk_string text = "SELECT time, percent_valid, 0";
    size_t count = 0;
    for (const CParamProperties& param : params)
        for (const tk_string& name : column_list(param)) {
            if (count % GROUP == 0)
                append_sql(text, count == 0 ? "" : ") IS NOT NULL", " OR coalesce(NULL");
            append_sql(text, ", ", name);
            ++count;
        }
    if (count != 0) append_sql(text, ") IS NOT NULL");
    append_sql(text, " FROM trends_", device, "_", period,
               " WHERE time >= ? AND time <= ? ORDER BY time");
    return text;
}

tk_string clear_text(int64_t device, unsigned long period, const timebounds_t& bounds)
{
    tk_string text = sql_text("DELETE FROM trends_", device, "_", period);
    if (bounds.first != -1) append_sql(text, " WHERE time >= ", bounds.first);
    if (bounds.second != -1)
        append_sql(text, bounds.first != -1 ? " AND" : " WHERE", " time <= ", bounds.second);
    return text;
}

}  // namespace toolkit::trend
