#include "numbers.h"
#include "output/writer.h"

namespace trendlog {

namespace {

// RFC 4180, with a line feed alone at the end of a line, as most programs write it. Separated by
// tabs it has no quotes: tabs, line feeds and backslashes are written as \t, \n, \\.
class CCsvWriter : public CWriter {
public:
    CCsvWriter(CSink& sink, const CZone& zone, char separator)
        : _sink(sink), _zone(zone), _separator(separator)
    {
    }

    void begin(const columns_t& columns) override
    {
        _columns = columns;
        for (size_t i = 0; i < columns.size(); ++i) {
            if (i > 0) _sink.text() += _separator;
            append_text(columns[i]._name);
        }
        _sink.add("\n");
    }

    void row(const cells_t& cells) override
    {
        std::string& text = _sink.text();
        for (size_t i = 0; i < cells.size(); ++i) {
            if (i > 0) text += _separator;
            append_cell(cells[i], _columns[i]._kind);
        }
        text += '\n';
        _sink.added();
    }

    void end() override {}

private:
    void append_cell(const cell_t& cell, column_kind_t kind)
    {
        switch (cell._kind) {
            case cell_t::INTEGER:
                if (kind == COLUMN_TIME)
                    _zone.append(_sink.text(), cell._integer);
                else
                    append_number(_sink.text(), cell._integer);
                break;
            case cell_t::NUMBER:
                append_number(_sink.text(), cell._number);
                break;
            case cell_t::TEXT:
                append_text(cell._text);
                break;
            default:
                break;
        }
    }

    void append_text(std::string_view value)
    {
        std::string& text = _sink.text();
        if (_separator == '\t') {
            for (const char c : value) {
                if (c == '\t')
                    text += "\\t";
                else if (c == '\n')
                    text += "\\n";
                else if (c == '\\')
                    text += "\\\\";
                else
                    text += c;
            }
        } else if (value.find_first_of(",\"\r\n") == std::string_view::npos) {
            text += value;
        } else {
            text += '"';
            for (const char c : value) {
                if (c == '"') text += '"';
                text += c;
            }
            text += '"';
        }
    }

    CSink& _sink;
    const CZone& _zone;
    char _separator;
    columns_t _columns;
};

}  // namespace

writer_t make_csv_writer(CSink& sink, const CZone& zone, char separator)
{
    return std::make_unique<CCsvWriter>(sink, zone, separator);
}

}  // namespace trendlog
