#pragma once

#include "sqlite_watch.h"

// Makes every INSERT, UPDATE and DELETE of the library's connection return a row, the number of
// rows it has changed, from the first step that is seen until the connection closes.
class count_changes : public sqlite_watch {
public:
    void before_step(sqlite3_stmt* stmt) override;

private:
    bool _done = false;
};
