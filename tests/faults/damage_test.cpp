// Damaged files: bits, bursts, sectors and pages of the file, its write-ahead log or its journal, a
// file cut short, and rows that no log would have written. The whole API is called on each, in a
// library built with AddressSanitizer and UndefinedBehaviorSanitizer. TREND_FAULTS_IMAGES is how
// many, TREND_FAULTS_SEED where they begin.

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "damage.h"
#include "disk.h"
#include "scenario.h"
#include "sweep.h"
#include "trend_reader.h"
#include "trend_repair.h"
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

// The whole API --------------------------------------------------------------------------------

// Rows, a look and a device in one transaction of the host's.
void record_together(CLog& log, const CDeviceParams& owner, CSnapshot& snapshot)
{
    if (log.begin_transaction() != 0) return;
    int failed = 0;
    for (int i = 0; i < 4 && !failed; ++i, snapshot._time += 60)
        failed = log.add_trend_data(owner, snapshot);
    CDeviceData data;
    if (!failed) failed = log.get_trend_data(data, owner, {}, {-1, -1}, 10, 0, false, false);
    CDeviceProperties device;
    device._path = "plant/together";
    if (!failed) failed = log.add_device(device);
    if (failed)
        log.rollback_transaction();
    else
        log.end_transaction();
}

// Every view of a reader. A damaged file may make it as long as it likes: a thousand rows will do.
void look_around(CLog& log, const CDeviceParams& owner)
{
    CReadRequest request;
    static_cast<CDeviceParams&>(request) = owner;
    size_t left = 0;
    const interval_visitor_t visit = [&](const CDeviceParams&, const CInterval&) {
        return --left > 0;
    };
    CReader reader(log);
    std::vector<CExtremes> extremes;
    std::vector<CCoverage> coverage;
    for (const auto& view : std::vector<std::function<int()>>{
             [&] { return reader.rows(request, {}, true, true, visit); },
             [&] { return reader.best_rows(request, visit); },
             [&] {
                 return reader.buckets(request, {0, 700, 1000, 5000}, visit);
             },
             [&] { return reader.points(request, 7, visit); },
             [&] { return reader.latest(visit); }}) {
        left = 1000;
        static_cast<void>(view());
    }
    reader.extremes(request, extremes);
    reader.coverage(request, coverage);
}

void use(CLog& log, bool wal)
{
    if (log.open(LOG_FILE, false, true, 20, false, 1024, 0, 0, wal) != 0) return;
    log.checkpoint_config(4);
    std::vector<CFinding> findings;
    check_log(log, 100000, findings);
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
        look_around(log, owner);
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
        record_together(log, owner, snapshot);
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
        CRebuildRequest request;
        request._device = device;
        request._off_grid = OFF_GRID_EXTEND;
        CRebuildResult result;
        rebuild(log, request, result);
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

}  // namespace

// The allocator is asked ten thousands of times an image: what it keeps back of freed memory stays
// within the processor's cache, and is still more than a call of the library frees.
extern "C" const char* __asan_default_options()
{
    return "malloc_context_size=1:quarantine_size_mb=1:thread_local_quarantine_size_kb=64:"
           "max_malloc_fill_size=0:detect_leaks=0";
}

TEST(damage, stops_nothing_but_by_a_documented_assertion)
{
    install_faults();
    const size_t images = setting("TREND_FAULTS_IMAGES", 12000);
    const size_t seed = setting("TREND_FAULTS_SEED", 1);
    constexpr size_t PIECE = 500;
    const auto intact = std::make_shared<std::vector<disk::image_t>>(damage::intact_images());
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
                const auto choice = [&](size_t n) { return below(random, n); };
                for (size_t i = below(random, 3) + 1; i > 0; --i)
                    damage::change(damage::foreign_change(choice));
            }
            CLog log;
            use(log, below(random, 2) != 0);
        };
        jobs.push_back(std::move(job));
    }

    const tally_t tally = run_jobs(jobs, 20, [](int signal, const std::string& said) {
        return signal == SIGABRT && damage::is_documented(said);
    });
    std::printf("Damaged images: %zu, %zu ended by a documented assertion, %zu failing\n",
                tally._points, tally._stops, tally._failures.size());
    EXPECT_GE(tally._points, images);
    EXPECT_TRUE(tally._failures.empty()) << tally.failures();
}
