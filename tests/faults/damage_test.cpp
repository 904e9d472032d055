// Damaged files: bits, bursts, sectors and pages of the file, its write-ahead log or its journal, a
// file cut short, and rows that no log would have written. The whole API is called on each, in a
// library built with AddressSanitizer and UndefinedBehaviorSanitizer. TREND_FAULTS_IMAGES is how
// many, TREND_FAULTS_SEED where they begin.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "disk.h"
#include "scenario.h"
#include "sweep.h"
#include "workers.h"

using namespace toolkit::trend;

namespace {

constexpr size_t SECTOR = 512;
constexpr size_t PAGE = 1024;

using random_t = std::mt19937_64;

size_t below(random_t& random, size_t n) { return static_cast<size_t>(random() % n); }

// Damages ----------------------------------------------------------------------------------------

void flip_bits(std::string& bytes, random_t& random)
{
    for (size_t i = below(random, 8) + 1; i > 0; --i)
        bytes[below(random, bytes.size())] ^= static_cast<char>(1 << below(random, 8));
}

void fill(std::string& bytes, size_t start, size_t size, random_t& random)
{
    const size_t end = std::min(bytes.size(), start + size);
    const size_t way = below(random, 4);
    const size_t other = below(random, bytes.size()) / size * size;
    for (size_t i = start; i < end; ++i)
        bytes[i] = way == 0   ? '\0'
                   : way == 1 ? '\xff'
                   : way == 2 ? static_cast<char>(random())
                              : bytes[(other + i - start) % bytes.size()];
}

void damage_bytes(std::string& bytes, random_t& random)
{
    if (bytes.empty()) return;
    switch (below(random, 6)) {
        case 0:
            flip_bits(bytes, random);
            break;
        case 1:
            fill(bytes, below(random, bytes.size()), below(random, 64) + 1, random);
            break;
        case 2:
            fill(bytes, below(random, bytes.size()) / SECTOR * SECTOR, SECTOR, random);
            break;
        case 3:
            fill(bytes, below(random, bytes.size()) / PAGE * PAGE, PAGE, random);
            break;
        case 4:
            bytes.resize(below(random, bytes.size()));
            break;
        default:  // in the header of the file or of a page, where it matters
            bytes[(below(random, bytes.size()) / PAGE * PAGE + below(random, 110)) % bytes.size()] =
                static_cast<char>(random());
    }
}

// A cell, or a table's text, that only somebody else can have written.
std::string damage_rows(random_t& random)
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
    if (below(random, 12) == 0) {
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
        return OTHERS[below(random, OTHERS.size())];
    }
    const std::string& place = PLACES[below(random, PLACES.size())];
    const std::string table = place.substr(0, place.find(' '));
    return "UPDATE OR IGNORE " + place + " = " + VALUES[below(random, VALUES.size())] +
           " WHERE rowid = (SELECT rowid FROM " + table + " ORDER BY rowid DESC LIMIT 1 OFFSET " +
           std::to_string(below(random, 4)) + ")";
}

// The files before: closed, with a write-ahead log that a crash has left, and with a journal that
// has to be rolled back.
std::vector<disk::image_t> intact_images()
{
    std::vector<disk::image_t> images = {base_image(step_t::LOG, true)};
    for (const bool wal : {true, false}) {
        disk::restore(base_image(step_t::LOG, wal));
        CLog log;
        if (prepare(log, {wal, false}) != 0) throw std::runtime_error("prepare");
        if (log.begin_transaction() != 0) throw std::runtime_error("begin");
        // Enough to leave the small page cache.
        CDeviceProperties device;
        for (int i = 0; i < 8; ++i) {
            device._path = "plant/" + std::to_string(i);
            if (log.add_device(device) != 0) throw std::runtime_error("add_device");
        }
        images.push_back(disk::image());
        log.rollback_transaction();
    }
    disk::restore({});
    return images;
}

// The whole API --------------------------------------------------------------------------------

void use(CLog& log)
{
    if (log.open(LOG_FILE, false, true, 20, false, 1024, 0, 0, true) != 0) return;
    std::vector<CPeriodProperties> periods;
    std::vector<CDeviceProperties> devices;
    if (log.get_periods(periods) != 0) periods.clear();
    if (log.get_devices(devices) != 0) devices.clear();
    if (devices.size() > 1) devices.resize(1);
    for (const CDeviceProperties& device : devices) {
        if (device._index < 0) continue;
        CDeviceParams owner;
        owner._device = device;
        if (log.get_params(device, owner._params) != 0) owner._params.clear();
        CDeviceData data;
        log.get_trend_data(data, owner, {}, {-1, -1}, 0, 0, true, false);
        log.get_trend_data(data, owner, periods, {0, 100000}, 50, 3, false, true);
        time_t latest = -1;
        log.get_latest_timestamp(device, latest);

        CSnapshot snapshot;
        snapshot._time = latest >= 0 && latest < 100000 ? latest + 60 : 100000;
        snapshot._percent_valid = 50.0;
        snapshot._samples.resize(owner._params.size());
        for (CSample& sample : snapshot._samples)
            sample = {1.0, 2.0, 0.5, 1.5, 3.0};
        for (int i = 0; i < 6; ++i, snapshot._time += 60)
            log.add_trend_data(owner, snapshot);
        if (!periods.empty()) log.fill_blank_values(device, snapshot._time + 3600, true);

        CParamProperties param;
        param._path = "added";
        param._has_avg = param._has_min = true;
        std::vector<CParamProperties> params = {param};
        if (!periods.empty() && log.add_params(device, params) == 0) {
            params[0]._has_max = true;
            log.modify_params(device, params);
            log.remove_params(device, params);
        }
        log.clear_trend_data(device, {300, 900});
    }

    log.add_period({120, 4});
    log.modify_period({1, 5});
    log.remove_period({5, 8});
    CDeviceProperties device;
    device._path = "plant/added";
    log.add_device(device);
    device._guid = "guid";
    log.modify_device(device);
    log.remove_device(device);
    if (!devices.empty()) log.remove_device(devices[0]);
    log.begin_transaction();
    log.rollback_transaction();
    log.checkpoint();
    log.vacuum();
    log.close();

    log.open(LOG_FILE, true, false, 1, true, 0, 0, 0, false);
    log.get_devices(devices);
}

// Assertions that stored configuration, or stored values in an SQL function, are documented to
// trip.
bool is_documented(int signal, const std::string& said)
{
    static const std::vector<std::string> CONDITIONS = {
        "ival>0",
        "!newprop._path.empty()",
        "(ival>=0) && (ival<SAMPLE_TYPE_LISTEND)",
        "(ival==0) || (ival==1)",
        "!periods.empty()",
        "periods[i]._period!=0",
        "periods[i]._max_entries!=0",
        "period._max_entries!=0",
        "device._index>=0",
        "first_time>=0",
        "timestamp>=static_cast<time_t>(-1)",
        "first_new_time!=static_cast<time_t>(-1)",
        "sqlite3_value_type(args[0])==1 || sqlite3_value_type(args[0])==2",
        "sqlite3_value_type(args[1])==1 || sqlite3_value_type(args[1])==2",
    };
    if (signal != SIGABRT) return false;
    return std::any_of(CONDITIONS.begin(), CONDITIONS.end(), [&](const std::string& condition) {
        return said.find("Assertion `" + condition + "' failed.") != std::string::npos;
    });
}

}  // namespace

// The allocator is asked ten thousands of times an image.
extern "C" const char* __asan_default_options()
{
    return "malloc_context_size=2:quarantine_size_mb=8:detect_leaks=0";
}

TEST(damage, stops_nothing_but_by_a_documented_assertion)
{
    install_faults();
    const size_t images = setting("TREND_FAULTS_IMAGES", 21000);
    const size_t seed = setting("TREND_FAULTS_SEED", 1);
    constexpr size_t PIECE = 500;
    const auto intact = std::make_shared<std::vector<disk::image_t>>(intact_images());
    std::vector<job_t> jobs;
    for (size_t first = 0; first < images; first += PIECE) {
        job_t job;
        job._name = "images from " + std::to_string(seed + first);
        job._take = [=](point_t& point) {
            random_t random(seed + first + point._n);
            if (point._n + 1 >= PIECE) point._next = point_t::DONE;
            if (point._n == PIECE) {  // the last one has ended the process before
                point._counts = false;
                return;
            }
            const size_t which = below(random, intact->size() + 1);
            if (which < intact->size()) {
                disk::image_t image = (*intact)[which];
                auto victim = image.begin();
                std::advance(victim, below(random, image.size()));
                for (size_t i = below(random, 2) + 1; i > 0; --i)
                    damage_bytes(victim->second, random);
                disk::restore(image);
            } else {
                disk::restore(intact->front());
                sqlite3* db = nullptr;
                sqlite3_open(LOG_FILE, &db);
                sqlite3_exec(db, "PRAGMA ignore_check_constraints = 1", nullptr, nullptr, nullptr);
                for (size_t i = below(random, 3) + 1; i > 0; --i)
                    sqlite3_exec(db, damage_rows(random).c_str(), nullptr, nullptr, nullptr);
                sqlite3_close(db);
            }
            CLog log;
            use(log);
        };
        jobs.push_back(std::move(job));
    }

    const tally_t tally = run_jobs(jobs, 20, is_documented);
    std::printf("Damaged images: %zu, %zu ended by a documented assertion, %zu failing\n",
                tally._points, tally._stops, tally._failures.size());
    EXPECT_GE(tally._points, std::min<size_t>(images, 20000));
    EXPECT_TRUE(tally._failures.empty()) << tally.failures();
}
