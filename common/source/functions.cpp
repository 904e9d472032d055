#include "functions.h"

#include <sqlite3.h>

#include <cstdio>

#include "aggregates.h"

using namespace toolkit::trend;

namespace {

constexpr aggregate_kind_t PFMIN = AGGREGATE_PFMIN;
constexpr aggregate_kind_t PFMAX = AGGREGATE_PFMAX;
constexpr aggregate_kind_t PFAVG = AGGREGATE_PFAVG;
constexpr aggregate_kind_t PFPCTAVG = AGGREGATE_PFPCTAVG;
constexpr aggregate_kind_t PCTAVG = AGGREGATE_PCTAVG;

const aggregate_kind_t* kind_of(sqlite3_context* ctx)
{
    return static_cast<const aggregate_kind_t*>(sqlite3_user_data(ctx));
}

// The group's accumulator, zeros at first; null when there is no memory for it.
accumulator_t* accumulator_of(sqlite3_context* ctx)
{
    return static_cast<accumulator_t*>(
        sqlite3_aggregate_context(ctx, static_cast<int>(sizeof(accumulator_t))));
}

}  // namespace

extern "C" {

static void pf_xstep(sqlite3_context* ctx, int nargs, sqlite3_value** args)
{
    TREND_ASSERT(ctx!=((void *)0));
    TREND_ASSERT(nargs>=1);
    const aggregate_kind_t* func_type = kind_of(ctx);
    TREND_ASSERT(func_type!=((void *)0));

    accumulator_t* accum = accumulator_of(ctx);
    if (!accum) return;  // the final call reports it
    if (accum->count == 0.0) TREND_ASSERT(accum->val==0.0);
    TREND_ASSERT(accum->val>=0.0);

    if (sqlite3_value_type(args[0]) == SQLITE_NULL) return;
    TREND_ASSERT(sqlite3_value_type(args[0])==1 || sqlite3_value_type(args[0])==2);
    const double tmp = wrap_power_factor(sqlite3_value_double(args[0]));
    TREND_ASSERT(tmp>=0.0);
    TREND_ASSERT(tmp<=2.0);

    double weight = 0.0;
    if (nargs != 1) {
        TREND_ASSERT(nargs==2);
        TREND_ASSERT(*func_type==AGGREGATE_PFPCTAVG);
        TREND_ASSERT(sqlite3_value_type(args[1])==1 || sqlite3_value_type(args[1])==2);
        weight = clamp_weight(sqlite3_value_double(args[1]));
    }

    switch (*func_type) {
        case AGGREGATE_PFMIN:
            add_minimum(*accum, tmp);
            break;
        case AGGREGATE_PFMAX:
            add_maximum(*accum, tmp);
            break;
        case AGGREGATE_PFAVG:
            add_value(*accum, tmp);
            break;
        default:
            TREND_ASSERT(*func_type==AGGREGATE_PFPCTAVG);
            add_weighted(*accum, tmp, weight);
    }
}

static void pf_xfinal(sqlite3_context* ctx)
{
    TREND_ASSERT(ctx!=((void *)0));
    const aggregate_kind_t* func_type = kind_of(ctx);
    TREND_ASSERT(func_type!=((void *)0));

    accumulator_t* accum = accumulator_of(ctx);
    if (!accum) {
        sqlite3_result_error_nomem(ctx);
        return;
    }
    TREND_ASSERT(accum->count>=0.0);
    if (accum->count == 0.0) {
        sqlite3_result_null(ctx);
        return;
    }

    if (*func_type == AGGREGATE_PFAVG || *func_type == AGGREGATE_PFPCTAVG)
        accum->val /= accum->count;
    TREND_ASSERT(accum->val>=0.0);
    TREND_ASSERT(accum->val<=2.0);
    sqlite3_result_double(ctx, unwrap_power_factor(accum->val));
}

static void pct_xstep(sqlite3_context* ctx, int nargs, sqlite3_value** args)
{
    TREND_ASSERT(ctx!=((void *)0));
    TREND_ASSERT(nargs==2);
    const aggregate_kind_t* func_type = kind_of(ctx);
    TREND_ASSERT(func_type!=((void *)0));
    TREND_ASSERT(*func_type==AGGREGATE_PCTAVG);

    accumulator_t* accum = accumulator_of(ctx);
    if (!accum) return;  // the final call reports it
    TREND_ASSERT(accum->count>=0.0);
    if (accum->count == 0.0) TREND_ASSERT(accum->val==0.0);

    if (sqlite3_value_type(args[0]) == SQLITE_NULL) return;
    TREND_ASSERT(sqlite3_value_type(args[0])==1 || sqlite3_value_type(args[0])==2);
    TREND_ASSERT(sqlite3_value_type(args[1])==1 || sqlite3_value_type(args[1])==2);
    add_weighted(*accum, sqlite3_value_double(args[0]),
                 clamp_weight(sqlite3_value_double(args[1])));
}

static void pct_xfinal(sqlite3_context* ctx)
{
    TREND_ASSERT(ctx!=((void *)0));
    const aggregate_kind_t* func_type = kind_of(ctx);
    TREND_ASSERT(func_type!=((void *)0));
    TREND_ASSERT(*func_type==AGGREGATE_PCTAVG);

    accumulator_t* accum = accumulator_of(ctx);
    if (!accum) {
        sqlite3_result_error_nomem(ctx);
        return;
    }
    TREND_ASSERT(accum->count>=0.0);
    if (accum->count == 0.0) {
        sqlite3_result_null(ctx);
        return;
    }

    accum->val /= accum->count;
    sqlite3_result_double(ctx, accum->val);
}

int register_custom_functions(sqlite3* pdb)
{
    TREND_ASSERT(pdb!=((void *)0));

    using xstep_t = void (*)(sqlite3_context*, int, sqlite3_value**);
    using xfinal_t = void (*)(sqlite3_context*);
    const struct {
        const char* _name;
        int _nargs;
        const aggregate_kind_t* _kind;
        xstep_t _xstep;
        xfinal_t _xfinal;
        const char* _failure;
    } functions[] = {
        {"pfmin", 1, &PFMIN, pf_xstep, pf_xfinal, "Error: create_function(pfmin) failed\n"},
        {"pfmax", 1, &PFMAX, pf_xstep, pf_xfinal, "Error: create_function(pfmax) failed\n"},
        {"pfavg", 1, &PFAVG, pf_xstep, pf_xfinal, "Error: create_function(pfavg) failed\n"},
        {"pfpctavg", 2, &PFPCTAVG, pf_xstep, pf_xfinal,
         "Error: create_function(pfpctavg) failed\n"},
        {"pctavg", 2, &PCTAVG, pct_xstep, pct_xfinal, "Error: create_function(pctavg) failed\n"},
    };
    for (const auto& function : functions) {
        // SQLite wants the user data writable and hands it back as it is.
        void* kind = const_cast<aggregate_kind_t*>(function._kind);
        if (sqlite3_create_function(pdb, function._name, function._nargs, SQLITE_ANY, kind, nullptr,
                                    function._xstep, function._xfinal) != SQLITE_OK) {
            std::fputs(function._failure, stderr);
            return -1;
        }
    }
    return 0;
}

}  // extern "C"
