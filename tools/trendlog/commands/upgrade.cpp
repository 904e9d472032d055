#include <sqlite3.h>
#include <unistd.h>

#include <cstdlib>

#include "changing.h"
#include "commands/commands.h"
#include "disk.h"
#include "numbers.h"

namespace trendlog {

namespace {

// The configuration of a log in a file of its own, without its rows.
class CRehearsal {
public:
    explicit CRehearsal(const CLogFile& file)
    {
        std::string folder = temporary_folder() + "/trendlog.XXXXXX";
        if (!mkdtemp(folder.data())) throw failure_t(folder + ": cannot be made");
        _folder = folder;
        _name = folder + "/rehearsal.db";
        const int code = copy(file);
        if (code != SQLITE_OK) file.fail_with_code(code);
    }
    ~CRehearsal()
    {
        unlink(_name.c_str());
        rmdir(_folder.c_str());
    }

    CRehearsal(const CRehearsal&) = delete;
    CRehearsal& operator=(const CRehearsal&) = delete;

    const std::string& name() const { return _name; }

private:
    // An upgrade has nothing to do with the tables of rows.
    int copy(const CLogFile& file) const
    {
        sqlite3* db = nullptr;
        int code = sqlite3_open(_name.c_str(), &db);
        sqlite3_busy_timeout(db, 5000);
        const std::string quoted = replaced(file.name());
        std::string sql = "ATTACH '" + quoted + "' AS log";
        if (code == SQLITE_OK) code = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
        sqlite3_stmt* tables = nullptr;
        if (code == SQLITE_OK)
            code =
                sqlite3_prepare_v2(db,
                                   "SELECT sql, 'INSERT INTO main.' || name || ' SELECT * FROM "
                                   "log.' || name FROM log.sqlite_master WHERE type = 'table' AND "
                                   "(name IN ('periods', 'devices') OR name GLOB 'params_*')",
                                   -1, &tables, nullptr);
        while (code == SQLITE_OK && (code = sqlite3_step(tables)) == SQLITE_ROW) {
            code = SQLITE_OK;
            for (const int column : {0, 1})
                if (code == SQLITE_OK)
                    code = sqlite3_exec(
                        db, reinterpret_cast<const char*>(sqlite3_column_text(tables, column)),
                        nullptr, nullptr, nullptr);
        }
        if (code == SQLITE_DONE) code = SQLITE_OK;
        sqlite3_finalize(tables);
        sql = "PRAGMA main.user_version = " + number_text(file.schema());
        if (code == SQLITE_OK) code = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
        sqlite3_close(db);
        return code;
    }

    static std::string replaced(const std::string& name)
    {
        std::string text;
        for (const char c : name)
            text += c == '\'' ? std::string("''") : std::string(1, c);
        return text;
    }

    std::string _folder;
    std::string _name;
};

exit_code_t run(const CArguments& arguments)
{
    CLogFile file(arguments, TO_UPGRADE);
    const std::string text =
        file.schema() == 2
            ? "its schema is " + number_text(file.schema()) + ", which is the newest: nothing to do"
            : "its schema was " + number_text(file.schema()) + " and is 2 now";
    if (is_dry_run(arguments) && file.schema() != 2) {
        const CRehearsal rehearsal(file);
        CLog log;
        if (log.open(rehearsal.name(), false, true, 100, false, 0, 0, 0, false) != 0)
            file.fail_with_library_line();
    }
    tell_outcome(file, arguments, text);
    return EXIT_DONE;
}

}  // namespace

command_t upgrade_command()
{
    return {
        "upgrade",
        SECTION_DATA,
        "Bring a log of an older version up to date",
        "Its rows are not touched. Programs of that older version do not read it afterwards.",
        {{"FILE", "the log"}},
        options_t{{"--dry-run", "", "try it on a copy of the configuration"}} + common_options(),
        {{"trendlog upgrade plant.db --dry-run", "Whether it would work"},
         {"trendlog upgrade plant.db", "Do it"}},
        run};
}

}  // namespace trendlog
