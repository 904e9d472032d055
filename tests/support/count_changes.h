#pragma once

#include <string>
#include <utility>

#include "sqlite_watch.h"

// Makes every INSERT, UPDATE and DELETE that the library's connection prepares return a row, the
// number of rows it has changed, from the first step of a statement whose text begins like this
// until the connection closes.
class count_changes : public sqlite_watch {
public:
    explicit count_changes(std::string from = "") : _from(std::move(from)) {}

    void before_step(sqlite3_stmt* stmt) override;

private:
    const std::string _from;
    bool _done = false;
};
