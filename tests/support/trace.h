#pragma once

#include <string>
#include <vector>

#include "sqlite_watch.h"

// Records what the library runs while it lives:
//
//     statement_trace trace;
//     _log.get_periods(periods);
//     EXPECT_EQ(trace.texts(), (texts_t{"BEGIN", "SELECT * FROM periods", "COMMIT"}));
//     EXPECT_EQ(trace.prepared(), texts_t{});  // all three were in the pool
class statement_trace : public sqlite_watch {
public:
    using texts_t = std::vector<std::string>;

    // The texts of the statements run, in order, a statement once however many rows it gave. With
    // placeholders, or with the bound values in their place.
    const texts_t& texts() const { return _texts; }
    const texts_t& expanded() const { return _expanded; }

    // The texts as above, and "reset ..." with the text of each statement that was reset.
    const texts_t& texts_and_resets() const { return _texts_and_resets; }

    // The texts that were prepared, in order. A statement that is run but not in here came from the
    // pool.
    const texts_t& prepared() const { return _prepared; }

    // How often a text was prepared, and run.
    int times_prepared(const std::string& sql) const;
    int times_run(const std::string& sql) const;

    void clear();

    bool denies(const std::string& sql) override;
    void before_reset(sqlite3_stmt* stmt) override;
    void before_step(sqlite3_stmt* stmt) override;
    void after_step(sqlite3_stmt* stmt, int result) override;

private:
    texts_t _texts;
    texts_t _expanded;
    texts_t _texts_and_resets;
    texts_t _prepared;
    const sqlite3_stmt* _busy = nullptr;  // found the file busy, steps again
};

using texts_t = statement_trace::texts_t;

// What texts_and_resets() says of an operation that ran one statement in a transaction of its own,
// failed there and let go of the statement before it rolled back.
texts_t rolled_back_after(const std::string& sql);
