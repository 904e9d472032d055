#include "output/writer.h"

#include <unistd.h>

#include "talk.h"

namespace trendlog {

std::string output_format(const CArguments& arguments)
{
    if (arguments.has("--json")) return "json";
    return arguments.text("--format", is_terminal(STDOUT_FILENO) ? "table" : "csv");
}

writer_t make_writer(const CArguments& arguments, CSink& sink, const CZone& zone)
{
    const std::string format = output_format(arguments);
    if (format == "csv") return make_csv_writer(sink, zone, ',');
    if (format == "tsv") return make_csv_writer(sink, zone, '\t');
    if (format == "json") return make_json_writer(sink, zone, JSON_ARRAY);
    if (format == "jsonl") return make_json_writer(sink, zone, JSON_LINES);
    if (format == "influx") return make_influx_writer(sink);
    return make_table_writer(sink, zone);
}

size_t shown_width(std::string_view text)
{
    size_t width = 0;
    for (const char c : text)
        width += (static_cast<unsigned char>(c) & 0xc0) != 0x80;
    return width;
}

std::string padded(std::string_view text, size_t width, bool to_the_right)
{
    const size_t shown = shown_width(text);
    const std::string space(width > shown ? width - shown : 0, ' ');
    return to_the_right ? space + std::string(text) : std::string(text) + space;
}

}  // namespace trendlog
