// Real measurements, recorded whole and rolled up, against a calculation of the test's own.

#include <algorithm>
#include <cmath>
#include <sstream>
#include <stdexcept>

#include "log_fixture.h"

namespace {

using namespace toolkit::trend;

constexpr size_t ROWS = 100000;  // more than any table here gets

// One row of one period, as the test calculates it: `values` has five per column, in the order
// minimum, maximum, average, actual value, sum.
struct row_t {
    time_t time;
    double percent_valid;
    std::vector<double> values;
};

enum { MIN, MAX, AVG, ACTUAL, SUM, AGGREGATES };

// The scale on which power factors lie: from 0 up to unity and on along the negative values.
double wrapped(double factor) { return factor < 0 ? factor + 2 : factor; }
double unwrapped(double on_scale) { return on_scale > 1 ? on_scale - 2 : on_scale; }

// The coarse rows of groups of `ratio` fine ones. A power factor is the last column. What is left
// over of the last group waits.
std::vector<row_t> rolled_up(const std::vector<row_t>& fine, size_t ratio)
{
    std::vector<row_t> coarse;
    for (size_t start = 0; start + ratio <= fine.size(); start += ratio) {
        const row_t& last = fine[start + ratio - 1];
        const size_t columns = last.values.size() / AGGREGATES;
        row_t row = {last.time, 0, std::vector<double>(last.values.size())};
        double weight = 0;
        for (size_t i = start; i < start + ratio; ++i)
            weight += fine[i].percent_valid;
        row.percent_valid = weight / double(ratio);
        // The last quantity's maximum decides where the actual values come from.
        size_t actual_row = start;
        const size_t deciding = (columns - 2) * AGGREGATES + MAX;
        for (size_t i = start; i < start + ratio; ++i)
            if (fine[i].values[deciding] > fine[actual_row].values[deciding]) actual_row = i;

        for (size_t column = 0; column < columns; ++column) {
            const bool is_factor = column == columns - 1;
            const auto value = [&](size_t i, size_t which) {
                const double stored = fine[i].values[column * AGGREGATES + which];
                return is_factor && which <= AVG ? wrapped(stored) : stored;
            };
            double min = value(start, MIN);
            double max = value(start, MAX);
            double weighted = 0;
            double sum = 0;
            for (size_t i = start; i < start + ratio; ++i) {
                min = std::min(min, value(i, MIN));
                max = std::max(max, value(i, MAX));
                weighted = std::fma(value(i, AVG), fine[i].percent_valid, weighted);
                sum += value(i, SUM);
            }
            const double avg = weighted / weight;
            double* const values = &row.values[column * AGGREGATES];
            values[MIN] = is_factor ? unwrapped(min) : min;
            values[MAX] = is_factor ? unwrapped(max) : max;
            values[AVG] = is_factor ? unwrapped(avg) : avg;
            values[ACTUAL] = value(actual_row, ACTUAL);
            values[SUM] = sum;
        }
        coarse.push_back(row);
    }
    return coarse;
}

class real_data : public log_fixture {
protected:
    void read(const std::string& file)
    {
        std::istringstream in(test_data("measurements/" + file));
        std::string line;
        std::getline(in, line);
        std::istringstream header(line);
        std::getline(header, line, ',');
        while (std::getline(header, line, ','))
            _names.push_back(line);
        while (std::getline(in, line)) {
            std::istringstream fields(line);
            std::getline(fields, line, ',');
            row_t row = {static_cast<time_t>(std::stoll(line)), 0, {}};
            while (std::getline(fields, line, ','))
                row.values.insert(row.values.end(), AGGREGATES, std::stod(line));
            if (row.values.size() != _names.size() * AGGREGATES)
                throw std::runtime_error("not a whole line in " + file);
            _measured.push_back(row);
        }
    }

    // Records everything, with a validity of the test's choice: these files have none.
    void record_all(const std::vector<unsigned long>& periods, double (*validity)(size_t row))
    {
        for (const unsigned long period : periods)
            add_period(period, ROWS);
        std::vector<CParamProperties> params;
        for (const std::string& name : _names)
            params.push_back(name == "power_factor" ? pf(name, "min max avg actual sum")
                                                    : param(name, "min max avg actual sum"));
        ASSERT_EQ(params.back()._type, SAMPLE_TYPE_PF);
        _device = add_device("site", params);

        ASSERT_EQ(_log.begin_transaction(), 0);  // for speed
        CSnapshot row;
        for (size_t i = 0; i < _measured.size(); ++i) {
            row._time = _measured[i].time;
            row._percent_valid = _measured[i].percent_valid = validity(i);
            row._samples.clear();
            for (size_t at = 0; at < _measured[i].values.size(); at += AGGREGATES) {
                const double value = _measured[i].values[at];
                row._samples.push_back({value, value, value, value, value});
            }
            ASSERT_EQ(_log.add_trend_data(_device, row), 0) << "row " << i;
        }
        ASSERT_EQ(_log.end_transaction(), 0);
        reopen();  // what is compared comes from the file
    }

    // The period's table holds exactly these rows.
    void expect_rows(unsigned long period, const std::vector<row_t>& expected)
    {
        CDeviceData data;
        ASSERT_EQ(_log.get_trend_data(data, _device, {{period, ROWS}}, {-1, -1}, 0, 0, true, false),
                  0);
        ASSERT_EQ(data._snapshots.size(), expected.size());
        for (size_t i = 0; i < expected.size(); ++i) {
            SCOPED_TRACE("period " + std::to_string(period) + ", row " + std::to_string(i));
            expect_row(data._snapshots[i], expected[i]);
            if (HasFailure()) return;
        }
    }

    // Equal to the last bit where every step of the calculation rounds in one way only. How sums
    // are added up differs between releases of SQLite; those of the validities here are exact.
    void expect_row(const CSnapshot& found, const row_t& expected)
    {
        EXPECT_EQ(found._time, expected.time);
        EXPECT_EQ(found._percent_valid, expected.percent_valid);
        for (size_t column = 0; column < _names.size(); ++column) {
            SCOPED_TRACE(_names[column]);
            const CSample& sample = found._samples.at(column);
            const double* const values = &expected.values[column * AGGREGATES];
            EXPECT_EQ(*sample._min, values[MIN]);
            EXPECT_EQ(*sample._max, values[MAX]);
            EXPECT_EQ(*sample._avg, values[AVG]);
            EXPECT_EQ(*sample._actual, values[ACTUAL]);
            EXPECT_NEAR(*sample._sum, values[SUM], 1e-9 * (1 + std::fabs(values[SUM])));
        }
    }

    std::vector<std::string> _names;
    std::vector<row_t> _measured;
    CDeviceParams _device;
};

double always_whole(size_t) { return 100; }

// Exact in binary, also divided by four: 100, 62.5, 25 and 0 by turns of seven rows.
double with_losses(size_t row)
{
    constexpr double PARTS[] = {100, 100, 62.5, 100, 25, 100, 0};
    return PARTS[row % 7];
}

TEST_F(real_data, year_of_a_steel_plant_by_quarters_hours_and_days)
{
    read("steel_plant_2018_15min.csv");
    ASSERT_EQ(_measured.size(), 35040u);
    record_all({15, 60, 1440}, always_whole);

    const std::vector<row_t> hours = rolled_up(_measured, 4);
    const std::vector<row_t> days = rolled_up(hours, 24);
    EXPECT_EQ(days.size(), 365u);
    expect_rows(15, _measured);
    expect_rows(60, hours);
    expect_rows(1440, days);
}

TEST_F(real_data, year_of_a_steel_plant_with_losses)
{
    // An hour's validity is a sum of four parts that are exact, and weights its average in the day.
    read("steel_plant_2018_15min.csv");
    record_all({15, 60, 1440}, with_losses);

    const std::vector<row_t> hours = rolled_up(_measured, 4);
    expect_rows(60, hours);
    expect_rows(1440, rolled_up(hours, 24));
}

TEST_F(real_data, two_days_of_a_household_by_minutes_quarters_and_days)
{
    read("household_2007_1min.csv");
    ASSERT_EQ(_measured.size(), 2880u);
    record_all({1, 15, 1440}, always_whole);

    const std::vector<row_t> quarters = rolled_up(_measured, 15);
    expect_rows(1, _measured);
    expect_rows(15, quarters);
    expect_rows(1440, rolled_up(quarters, 96));
}

TEST_F(real_data, stitched_read_of_a_year_has_no_gap_and_no_overlap)
{
    // Two days by quarters, a month by hours, the rest by days.
    read("steel_plant_2018_15min.csv");
    record_all({15, 60, 1440}, always_whole);
    ASSERT_EQ(_log.modify_period({15, 2 * 96}), 0);
    ASSERT_EQ(_log.modify_period({60, 30 * 24}), 0);

    CDeviceData data;
    ASSERT_EQ(_log.get_trend_data(data, _device, {}, {-1, -1}, 0, 0, true, true), 0);
    ASSERT_EQ(data._snapshots.size(), 335u + 28 * 24 + 2 * 96);
    time_t end = _measured.front().time - 900;  // of the row before
    for (const CSnapshot& row : data._snapshots) {
        ASSERT_EQ(row._time, end + static_cast<time_t>(row._period) * 60);
        end = row._time;
    }
    EXPECT_EQ(end, _measured.back().time);
}

}  // namespace
