#include "commands/commands.h"
#include "selection.h"
#include "talk.h"

namespace trendlog {

namespace {

exit_code_t run(const CArguments& arguments)
{
    const CZone zone(arguments.text("--tz", "UTC"));
    CLogFile file(arguments, TO_LOOK);

    // A line a parameter: devices have different ones.
    struct row_t {
        CDeviceParams _device;
        CInterval _newest;
    };
    std::vector<row_t> rows;
    file.read([&] {
        return CReader(file.log()).latest([&](const CDeviceParams& device, const CInterval& row) {
            rows.push_back({device, row});
            return true;
        });
    });

    std::vector<aggregate_name_t> kept;
    for (const aggregate_name_t& aggregate : AGGREGATE_NAMES) {
        bool any = false;
        for (const row_t& row : rows)
            for (const CParamProperties& param : row._device._params)
                any = any || param.*aggregate._kept;
        if (any) kept.push_back(aggregate);
    }
    columns_t columns = {{"device"},
                         {"param"},
                         {"start", COLUMN_NUMBER, "", true},
                         {"end", COLUMN_NUMBER, "", true},
                         {"time", COLUMN_TIME},
                         {"period", COLUMN_PERIOD},
                         {"percent_valid", COLUMN_PERCENT, "valid %"}};
    for (const aggregate_name_t& aggregate : kept)
        columns.push_back({aggregate._name, COLUMN_NUMBER});
    columns.push_back({"unit"});

    CSink sink;
    const writer_t writer = make_writer(arguments, sink, zone);
    writer->begin(columns);
    for (const row_t& row : rows)
        for (size_t i = 0; i < row._device._params.size(); ++i) {
            const CParamProperties& param = row._device._params[i];
            const std::string& device = row._device._device._path;
            cells_t cells = {
                cell_t(std::string_view(device)), cell_t(std::string_view(param._path)),
                int64_t(row._newest._start),      int64_t(row._newest._time),
                int64_t(row._newest._time),       static_cast<int64_t>(row._newest._period),
                row._newest._percent_valid};
            for (const aggregate_name_t& aggregate : kept)
                cells.push_back(param.*aggregate._kept
                                    ? cell_t(row._newest._samples[i].*aggregate._value)
                                    : cell_t());
            cells.push_back(cell_t::text(file.label(device, param._path)._unit));
            writer->row(cells);
        }
    writer->end();
    sink.flush();
    if (rows.empty()) remark(file.name() + ": no rows yet");
    return EXIT_DONE;
}

}  // namespace

command_t latest_command()
{
    return {"latest",
            SECTION_LOOK,
            "Give out the newest values of all devices",
            "A line for each parameter, from the newest row of its device.",
            {{"FILE", "the log"}},
            output_options() + common_options(),
            {{"trendlog latest plant.db", "How it stands"},
             {"trendlog latest plant.db --tz Europe/Berlin --format json",
              "The same for a program, with local times"}},
            run};
}

}  // namespace trendlog
