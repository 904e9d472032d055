#pragma once

#include <cstddef>
#include <cstdint>

#include "repair/numbers.h"
#include "trend_repair.h"

namespace toolkit::trend {

// How a step of a check ends, besides 0 and -1.
constexpr int STOPPED = 1;  // the host wants no more findings
constexpr int LEFT_OUT =
    2;  // there is a finding, and what builds on the content has to be left out

// What a finding is about: no device, no period, or one of them.
struct place_t {
    tk_string _device;
    unsigned long _period = 0;
};

// How many there are and where the first and the last one is.
struct stretch_t {
    uint64_t _count = 0;
    int64_t _first = -1;
    int64_t _last = -1;

    void add(int64_t time) { add(time, time, 1); }
    void add(int64_t first, int64_t last, uint64_t count)
    {
        if (_count == 0) _first = first;
        _last = last;
        _count += count;
    }
};

// A text of a query that cannot be of another type; NULL is empty.
tk_string text_of(const CStatement& row, size_t col);

// One check: reads, and hands on what is found.
class CInspector {
public:
    CInspector(CDatabase& db, int64_t now, const finding_visitor_t& visit)
        : _db(db), _now(now), _visit(visit)
    {
    }

    CDatabase& db() { return _db; }
    int64_t now() const { return _now; }
    bool has_found_damage() const { return _damage; }

    // 0, or STOPPED.
    int found(finding_kind_t kind, const tk_string& text, const place_t& place = {},
              const stretch_t& stretch = {});

    // The same for a finding that leaves nothing to build on: LEFT_OUT, or STOPPED.
    int found_unusable(finding_kind_t kind, const tk_string& text, const place_t& place);

    // After a statement on `what` has failed: LEFT_OUT with a finding when that is the content's
    // fault, else -1.
    int unreadable(const tk_string& what, const place_t& place);

    // Gives take() each row of the query, until it returns anything but 0.
    template <typename Take, typename... Values>
    int each(const tk_string& sql, const tk_string& what, const place_t& place, const Take& take,
             const Values&... values)
    {
        const stmt_wrapper_t stmt(CThrowing::stmt(_db, sql, STMT_FRESH));
        if (!stmt) return unreadable(what, place);
        return step_through(*stmt, what, place, take, values...);
    }

    // The same with a statement that is used again.
    template <typename Take, typename... Values>
    int step_through(CStatement& stmt, const tk_string& what, const place_t& place,
                     const Take& take, const Values&... values)
    {
        static_cast<void>(stmt.reset());  // after a step that failed there is no next use
        if (const int failed = bind_all(stmt, values...)) return failed;
        int retval = 0;
        while ((retval = stmt.step()) == 1)
            if (const int ended = take(stmt)) return ended;
        return retval == 0 ? 0 : unreadable(what, place);
    }

private:
    CDatabase& _db;
    const int64_t _now;
    const finding_visitor_t& _visit;
    bool _damage = false;
};

}  // namespace toolkit::trend
