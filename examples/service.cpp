#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <thread>

#include "trend_recorder.h"

using namespace toolkit::trend;

namespace {

volatile std::sig_atomic_t stopping = 0;

extern "C" void stop(int) { stopping = 1; }

// What a real one reads from its devices.
double read_power() { return 20.0 + std::sin(static_cast<double>(std::time(nullptr)) / 60.0); }
double read_meter() { return static_cast<double>(std::time(nullptr)) / 3600.0; }

CRecorderDevice pump()
{
    CRecorderParam power;  // a gauge, unless said otherwise
    power._path = "power_kw";
    power._has_min = power._has_max = power._has_avg = true;
    power._lowest = 0.0;
    CRecorderParam energy;
    energy._path = "energy_kwh";
    energy._kind = READING_COUNTER;
    energy._has_sum = true;

    CRecorderDevice device;
    device._path = "plant/pump";
    device._params = {power, energy};
    return device;
}

}  // namespace

int main()
{
    std::signal(SIGTERM, stop);
    std::signal(SIGINT, stop);

    CRecorderOptions options;
    options._periods = {{1, 2880}, {15, 2976}, {1440, 3660}};  // two days, a month, ten years
    options._commit_every_ms = 5 * 60'000;  // at most that is lost with the power
    options._hold_ms = 10'000;
    options._tell = [](notice_t notice, const char* line) {
        std::fprintf(stderr, "recorder: %s: %s\n", notice_name(notice), line);
    };
    options._own_device = "recorder";

    CRecorder recorder;
    CRecorderHandles handles;
    if (recorder.open("trend.db", options) != 0) return EXIT_FAILURE;
    if (recorder.attach(pump(), handles) != 0) return EXIT_FAILURE;
    std::puts("recording");
    std::fflush(stdout);

    while (stopping == 0) {
        recorder.push(handles._params[0], read_power());
        recorder.push(handles._params[1], read_meter());
        recorder.tick();  // a failure has been told, and is made up for later
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
    return recorder.close() == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
