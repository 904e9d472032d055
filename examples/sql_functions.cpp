// The library's aggregate functions in SQL of a host's own: readings of two motors, some of them
// from intervals that were measured only in part, stored through the library's connection and
// aggregated per motor on a connection that the host has opened itself.

#include <sqlite3.h>

#include <cstdio>
#include <string>
#include <vector>

#include "database.h"
#include "functions.h"

namespace trend = toolkit::trend;

namespace {

struct reading_t {
    std::string _motor;
    double _power;          // kW
    double _power_factor;   // negative while the load is leading
    double _percent_valid;  // share of the interval that was measured
};

const std::vector<reading_t> READINGS = {
    {"fan", 10.0, 0.90, 100.0}, {"fan", 20.0, -0.90, 50.0}, {"fan", 30.0, 0.70, 0.0},
    {"pump", 4.0, 0.80, 100.0}, {"pump", 6.0, 0.85, 100.0}, {"pump", 8.0, 0.95, 25.0},
};

// Whatever fails has been reported on standard error.
bool store_rows(trend::CDatabase& db)
{
    if (db.exec("CREATE TABLE readings (motor TEXT, power REAL, pf REAL, percent_valid REAL)",
                trend::STMT_FRESH, trend::ROW_NONE) != 0)
        return false;

    for (const reading_t& reading : READINGS) {
        const trend::stmt_wrapper_t insert(
            db.stmt("INSERT INTO readings VALUES (?, ?, ?, ?)", trend::STMT_POOLED));
        if (!insert || insert->bind(1, reading._motor) != 0 ||
            insert->bind(2, reading._power) != 0 || insert->bind(3, reading._power_factor) != 0 ||
            insert->bind(4, reading._percent_valid) != 0 || insert->step() != 0)
            return false;
    }
    return true;
}

// All readings in one transaction.
bool store(const std::string& file)
{
    trend::CDatabase db;
    if (db.open(file, 8, false, true, false, 0, 0, 0, true) != 0) return false;
    if (db.begin_transaction() != 0) return false;
    if (store_rows(db)) return db.end_transaction() == 0;
    db.rollback_transaction();
    return false;
}

int print_row(void*, int, char** column, char**)
{
    std::printf("%-6s %9s %8s %8s %8s %10s\n", column[0], column[1], column[2], column[3],
                column[4], column[5]);
    return 0;
}

bool report(const std::string& file)
{
    sqlite3* db = nullptr;
    bool good = sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
                register_custom_functions(db) == 0;
    if (good) {
        std::printf("%-6s %9s %8s %8s %8s %10s\n", "motor", "power/kW", "min pf", "max pf",
                    "avg pf", "intervals");
        const char* sql =
            "SELECT motor, printf('%.3f', pctavg(power, percent_valid)),"
            " printf('%+.3f', pfmin(pf)), printf('%+.3f', pfmax(pf)),"
            " printf('%+.3f', pfpctavg(pf, percent_valid)), count(*)"
            " FROM readings GROUP BY motor ORDER BY motor";
        good = sqlite3_exec(db, sql, print_row, nullptr, nullptr) == SQLITE_OK;
    }
    if (!good) std::fprintf(stderr, "%s\n", sqlite3_errmsg(db));
    sqlite3_close(db);
    return good;
}

}  // namespace

int main()
{
    const std::string file = "readings.db";
    return store(file) && report(file) ? 0 : 1;
}
