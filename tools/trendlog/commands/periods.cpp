#include "commands/commands.h"
#include "log_file.h"
#include "output/writer.h"

namespace trendlog {

namespace {

exit_code_t run(const CArguments& arguments)
{
    const CZone zone;
    CLogFile file(arguments, TO_LOOK);
    CSink sink;
    const writer_t writer = make_writer(arguments, sink, zone);
    writer->begin(
        {{"period", COLUMN_PERIOD}, {"keep_rows", COLUMN_NUMBER}, {"reach", COLUMN_PERIOD}});
    for (const CPeriodProperties& period : file.periods()) {
        const auto minutes = static_cast<int64_t>(period._period);
        const auto rows = static_cast<int64_t>(period._max_entries);
        writer->row({minutes, rows, minutes * rows});
    }
    writer->end();
    sink.flush();
    return EXIT_DONE;
}

}  // namespace

command_t periods_command()
{
    return {
        "periods",
        SECTION_LOOK,
        "List the periods",
        "Each with the rows that it keeps and how far back they reach; periods and reach are in "
        "minutes, in a table with their unit.",
        {{"FILE", "the log"}},
        options_t{output_options()[0]} + common_options(),
        {{"trendlog periods plant.db", "How long what is kept"},
         {"trendlog periods plant.db --format jsonl", "The same for a program"}},
        run};
}

}  // namespace trendlog
