#include <algorithm>

#include "commands/commands.h"
#include "numbers.h"
#include "selection.h"
#include "talk.h"
#include "trend_transaction.h"

namespace trendlog {

namespace {

// Every device that is asked for, with the parameters that are asked for of those that it has.
std::vector<CDeviceParams> select_devices(CLogFile& file, const CArguments& arguments)
{
    const std::vector<std::string> names = arguments.words("DEVICE");
    const std::vector<std::string> wanted = arguments.list("--param");
    std::vector<CDeviceProperties> devices;
    if (names.empty()) devices = file.devices();
    for (const std::string& name : names)
        devices.push_back(file.device(name));

    std::vector<CDeviceParams> selected;
    std::vector<std::string> met;
    for (const CDeviceProperties& device : devices) {
        std::vector<std::string> params;
        bool has_any = false;
        for (const CParamProperties& param : file.params(device)) {
            has_any = true;
            if (std::find(wanted.begin(), wanted.end(), param._path) == wanted.end()) continue;
            params.push_back(param._path);
            met.push_back(param._path);
        }
        if (wanted.empty() ? has_any : !params.empty())
            selected.push_back(select_params(file, device, params, arguments.list("--agg")));
    }
    for (const std::string& name : wanted)
        if (std::find(met.begin(), met.end(), name) == met.end())
            file.fail("no device has a parameter '" + name + "'; `trendlog params` lists them");
    return selected;
}

void export_rows(CLogFile& file, const CArguments& arguments, const CZone& zone, CSink& sink)
{
    const std::vector<CDeviceParams> devices = select_devices(file, arguments);
    const std::string format = arguments.text("--format", "csv");
    writer_t writer;
    if (format == "influx")
        writer = make_influx_writer(sink);
    else if (format == "json" || format == "jsonl")
        writer = make_json_writer(sink, zone, format == "json" ? JSON_ARRAY : JSON_LINES);
    else
        writer = make_csv_writer(sink, zone, format == "tsv" ? '\t' : ',');

    CRowShape shape(devices.size() > 1 || format == "influx");
    for (const CDeviceParams& device : devices)
        shape.add(file, device);
    writer->begin(shape.columns());
    CProgress progress(file.name() + ": rows");
    uint64_t rows = 0;
    double done = 0;
    for (const CDeviceParams& device : devices) {
        const timebounds_t stored = stored_bounds(file, device._device);
        if (stored.second == -1) continue;
        row_source_t source;
        static_cast<CDeviceParams&>(source._request) = device;
        source._periods = select_periods(file, arguments);
        source._request._bounds = bounds_of(select_window(arguments, zone, stored));
        const double length = static_cast<double>(stored.second - stored.first + 1);
        for_each_row(file, source, sink, [&](const CDeviceParams& of, const CInterval& row) {
            writer->row(shape.cells(of, row));
            const double share = static_cast<double>(row._time - stored.first) / length;
            progress.at(++rows, (done + share) / static_cast<double>(devices.size()));
            return true;
        });
        done += 1;
    }
    writer->end();
}

exit_code_t run(const CArguments& arguments)
{
    const CZone zone(arguments.text("--tz", "UTC"));
    CLogFile file(arguments, TO_LOOK);
    CSink sink;
    if (!arguments.has("--snapshot")) {
        export_rows(file, arguments, zone, sink);
    } else {
        // One transaction around all reads: they see one moment of the file, and whoever writes
        // without write-ahead mode waits for the end of it.
        file.read([&] {
            CTransaction transaction(file.log());
            export_rows(file, arguments, zone, sink);
            return transaction.commit();
        });
    }
    sink.flush();
    return EXIT_DONE;
}

}  // namespace

command_t export_command()
{
    const options_t own = {
        {"--param", "P,...", "only these parameters"},
        {"--agg", "A,...", "only these of min, max, avg, actual, sum"},
        {"--period", "P,...", "the rows of these periods, or of all; the best rows without it"},
        {"--snapshot", "", "as the file is at one moment; without write-ahead mode others wait"},
        {"--format",
         "FORMAT",
         "csv (unless said else), tsv, json, jsonl, influx (line protocol)",
         {"csv", "tsv", "json", "jsonl", "influx"}},
        {"--tz", "ZONE", "show times and mean dates there, UTC unless given"},
    };
    return {"export",
            SECTION_LOOK,
            "Give out everything, or a selection, for other programs",
            "Device by device, oldest first, in reads of at most 50 ms that go on by time, so that "
            "nobody who records has to wait.",
            {{"FILE", "the log"}, {"DEVICE", "these devices alone", false, true}},
            window_options() + own + common_options(),
            {{"trendlog export plant.db --period 1d > days.csv", "All days of all devices"},
             {"trendlog export plant.db plant/steel --format influx --from last-1d",
              "The newest day, for a time-series server"}},
            run};
}

}  // namespace trendlog
