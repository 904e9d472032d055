#include "sqlite_watch.h"

#include <dlfcn.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

std::vector<sqlite_watch*>& watches()
{
    static std::vector<sqlite_watch*> all;
    return all;
}

// Above 0 inside a call that is passed on: SQLite calls its own functions, for VACUUM for instance.
int depth = 0;

// SQLite's own function of that name.
template <typename Function>
Function* real(const char* name)
{
    void* const symbol = dlsym(RTLD_NEXT, name);
    if (symbol == nullptr) std::abort();
    Function* function = nullptr;
    std::memcpy(&function, &symbol, sizeof function);
    return function;
}

bool denied(const std::string& sql)
{
    bool any = false;
    for (sqlite_watch* watch : watches())
        any = watch->denies(sql) || any;  // each counts, also when another denies
    return any;
}

// The parameter to bind in its place: 0, which no statement has, for a bind that shall fail.
int bound(sqlite3_stmt* stmt, int index)
{
    bool refused = false;
    if (depth == 0)
        for (sqlite_watch* watch : watches())
            refused = watch->refuses_bind(stmt) || refused;
    return refused ? 0 : index;
}

}  // namespace

extern "C" int sqlite3_prepare_v2(sqlite3* db, const char* sql, int size, sqlite3_stmt** stmt,
                                  const char** tail)
{
    static const auto prepare = real<decltype(sqlite3_prepare_v2)>("sqlite3_prepare_v2");
    if (depth > 0 || watches().empty()) return prepare(db, sql, size, stmt, tail);

    const bool deny = denied(size < 0 ? sql : std::string(sql, static_cast<size_t>(size)));
    const unwatched inside;
    // Reads the schema, for an unknown name under an old schema would be code 17.
    if (deny) return prepare(db, "SELECT denied FROM sqlite_master", -1, stmt, tail);
    return prepare(db, sql, size, stmt, tail);
}

extern "C" int sqlite3_step(sqlite3_stmt* stmt)
{
    static const auto step = real<decltype(sqlite3_step)>("sqlite3_step");
    if (depth > 0 || watches().empty()) return step(stmt);

    for (sqlite_watch* watch : watches())
        watch->before_step(stmt);
    int result = SQLITE_ERROR;
    {
        const unwatched inside;
        result = step(stmt);
    }
    for (sqlite_watch* watch : watches())
        watch->after_step(stmt, result);
    return result;
}

extern "C" int sqlite3_bind_int64(sqlite3_stmt* stmt, int index, sqlite3_int64 value)
{
    static const auto bind = real<decltype(sqlite3_bind_int64)>("sqlite3_bind_int64");
    return bind(stmt, bound(stmt, index), value);
}

extern "C" int sqlite3_bind_double(sqlite3_stmt* stmt, int index, double value)
{
    static const auto bind = real<decltype(sqlite3_bind_double)>("sqlite3_bind_double");
    return bind(stmt, bound(stmt, index), value);
}

extern "C" int sqlite3_bind_null(sqlite3_stmt* stmt, int index)
{
    static const auto bind = real<decltype(sqlite3_bind_null)>("sqlite3_bind_null");
    return bind(stmt, bound(stmt, index));
}

extern "C" int sqlite3_bind_text(sqlite3_stmt* stmt, int index, const char* text, int size,
                                 void (*destroy)(void*))
{
    static const auto bind = real<decltype(sqlite3_bind_text)>("sqlite3_bind_text");
    return bind(stmt, bound(stmt, index), text, size, destroy);
}

extern "C" int sqlite3_reset(sqlite3_stmt* stmt)
{
    static const auto reset = real<decltype(sqlite3_reset)>("sqlite3_reset");
    if (depth > 0 || watches().empty()) return reset(stmt);

    for (sqlite_watch* watch : watches())
        watch->before_reset(stmt);
    const unwatched inside;
    return reset(stmt);
}

sqlite_watch::sqlite_watch() { watches().push_back(this); }

sqlite_watch::~sqlite_watch()
{
    watches().erase(std::find(watches().begin(), watches().end(), this));
}

bool sqlite_watch::denies(const std::string&) { return false; }

bool sqlite_watch::refuses_bind(sqlite3_stmt*) { return false; }

void sqlite_watch::before_reset(sqlite3_stmt*) {}

void sqlite_watch::before_step(sqlite3_stmt*) {}

void sqlite_watch::after_step(sqlite3_stmt*, int) {}

unwatched::unwatched() { ++depth; }

unwatched::~unwatched() { --depth; }
