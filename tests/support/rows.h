#pragma once

#include <string>

// What a log's file holds, seen through a second, read-only connection, that is as any other
// process sees it: without what the log has not committed yet. All of these throw when SQLite fails
// or finds the file locked.

// The rows of a query in one string, "300|100.0\n600|NULL": values as the sqlite3 shell prints
// them, NULL as "NULL", no newline at the end. Empty without a row.
std::string rows(const std::string& file, const std::string& sql);

// All that the file says: schema, schema version and every row, with types and every digit, to be
// compared before and after.
std::string dump(const std::string& file);

// Runs statements separated by semicolons on a connection of its own that makes the file if there
// is none: to prepare files without the library.
void run_sql(const std::string& file, const std::string& sql);

// Damages a table of several pages as SQLite notices only in a check: the keys of all pages but
// the first and the last become 1. Not for a file that is open.
void disorder_rows(const std::string& file, const std::string& table);

// The bytes of a file. Not for a log that is open: closing the file here would drop its locks.
std::string file_bytes(const std::string& file);

// The text of a file in tests/data.
std::string test_data(const std::string& name);
