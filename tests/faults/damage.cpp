#include "damage.h"

#include <sqlite3.h>

#include <algorithm>

#include "scenario.h"

namespace damage {

std::vector<disk::image_t> intact_images()
{
    return {base_image(step_t::LOG, true), base_image(step_t::VERSION_0, false),
            base_image(step_t::VERSION_1, false), base_image(step_t::CRASHED_LOG, true),
            base_image(step_t::CRASHED_LOG, false)};
}

std::string foreign_change(const choice_t& below)
{
    static const std::vector<std::string> VALUES = {"0",
                                                    "1",
                                                    "-1",
                                                    "2",
                                                    "7",
                                                    "60",
                                                    "4294967295",
                                                    "4294967296",
                                                    "4294967297",
                                                    "9223372036854775807",
                                                    "9223372036854775806",
                                                    "-9223372036854775808",
                                                    "9223372036854775740",
                                                    "1e308",
                                                    "-1e308",
                                                    "9e999",
                                                    "-9e999",
                                                    "0.5",
                                                    "NULL",
                                                    "''",
                                                    "'text'",
                                                    "x''",
                                                    "x'00'",
                                                    "char(0)",
                                                    "2.5e-324"};
    static const std::vector<std::string> PLACES = {"periods SET period",
                                                    "periods SET max_entries",
                                                    "devices SET idx",
                                                    "devices SET path",
                                                    "devices SET guid",
                                                    "params_1 SET idx",
                                                    "params_1 SET path",
                                                    "params_1 SET type",
                                                    "params_1 SET has_min",
                                                    "params_1 SET has_avg",
                                                    "params_1 SET has_sum",
                                                    "trends_1_1 SET time",
                                                    "trends_1_5 SET time",
                                                    "trends_1_15 SET time",
                                                    "trends_1_1 SET percent_valid",
                                                    "trends_1_5 SET percent_valid",
                                                    "trends_1_1 SET param_1_min",
                                                    "trends_1_1 SET param_1_avg",
                                                    "trends_1_1 SET param_2_avg",
                                                    "trends_1_1 SET param_2_min",
                                                    "trends_1_1 SET param_1_sum",
                                                    "trends_1_1 SET param_1_actual"};
    if (below(12) == 0) {
        static const std::vector<std::string> OTHERS = {
            "DROP TABLE trends_1_5",
            "DROP TABLE params_1",
            "DROP TABLE periods",
            "DROP TABLE devices",
            "CREATE TABLE tmp_table (a)",
            "PRAGMA user_version = 0",
            "PRAGMA user_version = 1",
            "PRAGMA user_version = -1",
            "PRAGMA user_version = 3",
            "ALTER TABLE trends_1_1 DROP COLUMN param_1_sum",
            "ALTER TABLE periods ADD COLUMN more",
            "DELETE FROM periods",
            "ALTER TABLE devices RENAME COLUMN guid TO path2",
            "CREATE TRIGGER t AFTER INSERT ON trends_1_1 BEGIN DELETE FROM trends_1_1; END",
            "CREATE TRIGGER t AFTER INSERT ON trends_1_1 BEGIN SELECT RAISE(ROLLBACK, 'no'); END",
            "INSERT INTO periods VALUES (2, 5)",
            "INSERT INTO periods VALUES (0, 0)"};
        return OTHERS[below(OTHERS.size())];
    }
    const std::string& place = PLACES[below(PLACES.size())];
    const std::string table = place.substr(0, place.find(' '));
    return "UPDATE OR IGNORE " + place + " = " + VALUES[below(VALUES.size())] +
           " WHERE rowid = (SELECT rowid FROM " + table + " ORDER BY rowid DESC LIMIT 1 OFFSET " +
           std::to_string(below(4)) + ")";
}

void change(const std::string& sql)
{
    sqlite3* db = nullptr;
    sqlite3_open(LOG_FILE, &db);
    sqlite3_exec(db, "PRAGMA ignore_check_constraints = 1", nullptr, nullptr, nullptr);
    sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
    sqlite3_close(db);
}

bool is_documented(const std::string& said)
{
    static const std::vector<std::string> CONDITIONS = {
        "ival>0",
        "!newprop._path.empty()",
        "(ival>=0) && (ival<SAMPLE_TYPE_LISTEND)",
        "(ival==0) || (ival==1)",
        "!periods.empty()",
        "periods[0]._period!=0",
        "periods[i]._period!=0",
        "periods[idx]._period!=0",
        "periods[i]._max_entries!=0",
        "periods[idx]._max_entries!=0",
        "period._period!=0",
        "period._max_entries!=0",
        "device._index>=0",
        "params[i]._index>=0",
        "std::is_sorted(params.begin(), params.end())",
        "upper_bounds[i]>=-1",
        "first_time>=0",
        "timestamp>=static_cast<time_t>(-1)",
        "first_new_time!=static_cast<time_t>(-1)",
        "sqlite3_value_type(args[0])==1 || sqlite3_value_type(args[0])==2",
        "sqlite3_value_type(args[1])==1 || sqlite3_value_type(args[1])==2",
    };
    return std::any_of(CONDITIONS.begin(), CONDITIONS.end(), [&](const std::string& condition) {
        return said.find("Assertion `" + condition + "' failed.") != std::string::npos;
    });
}

}  // namespace damage
