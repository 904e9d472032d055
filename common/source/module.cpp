// The aggregate functions as a loadable module, for programs that use SQLite without the library:
// the sqlite3 shell, scripting languages. SQLite is the one of the program that loads it.
//
// Where the library stops the process because its own SQL can only be wrong, this module meets SQL
// that anybody typed: whatever is wrong with an argument is an error of that statement.

#include <sqlite3ext.h>

#include "aggregates.h"
#include "trend_base.h"

SQLITE_EXTENSION_INIT1

using namespace toolkit::trend;

namespace {

struct function_t {
    const char* _name;
    int _nargs;  // SQLite refuses any other number itself
    aggregate_kind_t _kind;
};

constexpr function_t FUNCTIONS[] = {
    {"pfmin", 1, AGGREGATE_PFMIN},   {"pfmax", 1, AGGREGATE_PFMAX},
    {"pfavg", 1, AGGREGATE_PFAVG},   {"pfpctavg", 2, AGGREGATE_PFPCTAVG},
    {"pctavg", 2, AGGREGATE_PCTAVG},
};

const function_t& function_of(sqlite3_context* ctx)
{
    return *static_cast<const function_t*>(sqlite3_user_data(ctx));
}

bool is_number(sqlite3_value* value)
{
    const int type = sqlite3_value_type(value);
    return type == SQLITE_INTEGER || type == SQLITE_FLOAT;
}

void refuse(sqlite3_context* ctx, const char* why)
{
    char* text = sqlite3_mprintf("%s: %s", function_of(ctx)._name, why);
    if (!text) {
        sqlite3_result_error_nomem(ctx);
        return;
    }
    sqlite3_result_error(ctx, text, -1);
    sqlite3_free(text);
}

void add(accumulator_t& accum, aggregate_kind_t kind, double x, double weight)
{
    switch (kind) {
        case AGGREGATE_PFMIN:
            add_minimum(accum, wrap_power_factor(x));
            break;
        case AGGREGATE_PFMAX:
            add_maximum(accum, wrap_power_factor(x));
            break;
        case AGGREGATE_PFAVG:
            add_value(accum, wrap_power_factor(x));
            break;
        case AGGREGATE_PFPCTAVG:
            add_weighted(accum, wrap_power_factor(x), weight);
            break;
        case AGGREGATE_PCTAVG:
            add_weighted(accum, x, weight);
            break;
    }
}

}  // namespace

extern "C" {

static void xstep(sqlite3_context* ctx, int nargs, sqlite3_value** args)
{
    if (sqlite3_value_type(args[0]) == SQLITE_NULL) return;
    if (!is_number(args[0])) {
        refuse(ctx, "the value must be a number or NULL");
        return;
    }
    double weight = 0.0;
    if (nargs == 2) {
        if (!is_number(args[1])) {
            refuse(ctx, "the weight must be a number");
            return;
        }
        weight = clamp_weight(sqlite3_value_double(args[1]));
    }

    auto* accum = static_cast<accumulator_t*>(
        sqlite3_aggregate_context(ctx, static_cast<int>(sizeof(accumulator_t))));
    if (!accum) {
        sqlite3_result_error_nomem(ctx);
        return;
    }
    add(*accum, function_of(ctx)._kind, sqlite3_value_double(args[0]), weight);
}

static void xfinal(sqlite3_context* ctx)
{
    // A size of 0 asks for what the steps have left, null if there was none.
    const auto* accum = static_cast<const accumulator_t*>(sqlite3_aggregate_context(ctx, 0));
    if (!accum || accum->count == 0.0) {
        sqlite3_result_null(ctx);
        return;
    }

    switch (function_of(ctx)._kind) {
        case AGGREGATE_PFMIN:
        case AGGREGATE_PFMAX:
            sqlite3_result_double(ctx, unwrap_power_factor(accum->val));
            break;
        case AGGREGATE_PFAVG:
        case AGGREGATE_PFPCTAVG:
            sqlite3_result_double(ctx, unwrap_power_factor(accum->val / accum->count));
            break;
        case AGGREGATE_PCTAVG:
            sqlite3_result_double(ctx, accum->val / accum->count);
            break;
    }
}

// What SQLite looks for in a file of the name trend.so.
TREND_EXPORT int sqlite3_trend_init(sqlite3* db, char** message, const sqlite3_api_routines* api)
{
    SQLITE_EXTENSION_INIT2(api);

    // The functions depend on nothing but their arguments, so views and triggers may use them too.
    constexpr int flags = SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS;
    for (const function_t& function : FUNCTIONS) {
        // SQLite wants the user data writable and hands it back as it is.
        void* data = const_cast<function_t*>(&function);
        const int failed = sqlite3_create_function(db, function._name, function._nargs, flags, data,
                                                   nullptr, xstep, xfinal);
        if (failed != SQLITE_OK) {
            if (message) *message = sqlite3_mprintf("can't create function %s", function._name);
            return failed;
        }
    }
    return SQLITE_OK;
}

}  // extern "C"
