#include <cmath>

#include "numbers.h"
#include "output/writer.h"
#include "talk.h"

namespace trendlog {

namespace {

// Line protocol: the measurement "trend" with the tags device and period (minutes), a field for
// percent_valid and one for each value, PARAM.min and so on, and the end of the interval in
// nanoseconds. It has neither absent values nor infinite ones: those are left out.
class CInfluxWriter : public CWriter {
public:
    explicit CInfluxWriter(CSink& sink) : _sink(sink) {}

    void begin(const columns_t& columns) override
    {
        for (size_t i = 0; i < columns.size(); ++i) {
            const column_t& column = columns[i];
            std::string name;
            append_escaped(name, column._name);
            _names.push_back(name + "=");
            if (column._name == "device") _device = i;
            if (column._name == "period") _period = i;
            if (column._name == "end") _end = i;
            _is_field.push_back(!column._param.empty() || column._name == "percent_valid");
        }
    }

    void row(const cells_t& cells) override
    {
        std::string& text = _sink.text();
        text += "trend,device=";
        append_escaped(text, cells[_device]._text);
        text += ",period=";
        append_number(text, cells[_period]._integer);
        char between = ' ';
        for (size_t i = 0; i < cells.size(); ++i) {
            if (!_is_field[i] || cells[i]._kind != cell_t::NUMBER) continue;
            if (!std::isfinite(cells[i]._number)) {
                ++_left_out;
                continue;
            }
            text += between;
            text += _names[i];
            append_number(text, cells[i]._number);
            between = ',';
        }
        text += ' ';
        append_number(text, cells[_end]._integer);
        text += "000000000\n";
        _sink.added();
    }

    void end() override
    {
        if (_left_out > 0)
            remark(counted(_left_out, "infinite value") + " left out, line protocol has none");
    }

private:
    static void append_escaped(std::string& text, std::string_view name)
    {
        for (const char c : name) {
            if (c == ',' || c == '=' || c == ' ') text += '\\';
            if (c == '\n') {
                text += "\\n";  // a line is a row
                continue;
            }
            text += c;
        }
    }

    CSink& _sink;
    std::vector<std::string> _names;
    std::vector<bool> _is_field;
    size_t _device = 0;
    size_t _period = 0;
    size_t _end = 0;
    uint64_t _left_out = 0;
};

}  // namespace

writer_t make_influx_writer(CSink& sink) { return std::make_unique<CInfluxWriter>(sink); }

}  // namespace trendlog
