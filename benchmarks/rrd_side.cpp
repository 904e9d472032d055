#include "rrd_side.h"

#include <rrd.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

using namespace toolkit::trend;

namespace {

void want(int code)
{
    if (code == 0) return;
    const std::string why = rrd_get_error();
    rrd_clear_error();
    throw std::runtime_error(why);
}

template <typename Number>
void append(std::string& text, Number number)
{
    char digits[32];
    text.append(digits, std::to_chars(digits, digits + sizeof(digits), number).ptr);
}

}  // namespace

rrd_side::rrd_side(const plant_t& plant, int64_t minute)
{
    std::vector<std::string> layout;
    for (size_t i = 1; i <= plant._params; ++i)
        layout.push_back("DS:param" + std::to_string(i) + ":GAUGE:120:U:U");
    for (const CPeriodProperties& period : plant._periods)
        for (const char* kept : {"MIN", "MAX", "AVERAGE", "LAST"})
            layout.push_back(std::string("RRA:") + kept + ":0.5:" + std::to_string(period._period) +
                             ":" + std::to_string(period._max_entries));
    std::vector<const char*> args;
    for (const std::string& line : layout)
        args.push_back(line.c_str());

    for (size_t number = 1; number <= plant._devices; ++number) {
        _files.push_back("device" + std::to_string(number) + ".rrd");
        want(rrd_create_r(_files.back().c_str(), 60, static_cast<time_t>(60 * minute),
                          static_cast<int>(args.size()), args.data()));
    }
}

rrd_side::~rrd_side()
{
    for (const std::string& file : _files)
        std::remove(file.c_str());
}

void rrd_side::record(size_t device, const CSnapshot& snapshot)
{
    _update.clear();
    append(_update, snapshot._time);
    for (const CSample& sample : snapshot._samples) {
        _update += ':';
        append(_update, *sample._avg);
    }
    const char* args[] = {_update.c_str()};
    want(rrd_update_r(_files[device].c_str(), nullptr, 1, args));
}

double rrd_side::stored_average(size_t device, time_t time) const
{
    time_t start = time - 60;
    time_t end = time;
    unsigned long step = 60;
    unsigned long sources = 0;
    char** names = nullptr;
    rrd_value_t* values = nullptr;
    want(rrd_fetch_r(_files[device].c_str(), "AVERAGE", &start, &end, &step, &sources, &names,
                     &values));
    const double average = values[0];
    for (unsigned long i = 0; i < sources; ++i)
        std::free(names[i]);
    std::free(names);
    std::free(values);
    return average;
}
