// What a reader does over a connection that a host cannot make.

#include <sqlite3.h>

#include "database.h"
#include "log_fixture.h"
#include "trend/access.h"
#include "trend_reader.h"

using namespace toolkit::trend;

using reader_access = log_fixture;

TEST_F(reader_access, has_no_sizes_of_tables_where_sqlite_has_no_dbstat)
{
    add_period(1, 100);
    const CDeviceParams device = add_device("pump", {param("power", "avg")});
    record(device, 60, {1.0});
    sqlite3_drop_modules(**log_access_t::connection(_log), nullptr);

    CReadRequest request;
    request._device = device._device;
    std::vector<CCoverage> coverage;
    EXPECT_QUIET(CReader(_log).coverage(request, coverage), 0);
    ASSERT_EQ(1U, coverage.size());
    EXPECT_EQ(1, coverage[0]._rows);
    EXPECT_EQ(-1, coverage[0]._bytes);
}
