#include <cmath>

#include "numbers.h"
#include "output/writer.h"

namespace trendlog {

void append_json(std::string& text, std::string_view value)
{
    constexpr const char* DIGITS = "0123456789abcdef";
    text += '"';
    for (const char c : value) {
        if (c == '"' || c == '\\') {
            text += '\\';
            text += c;
        } else if (c == '\n') {
            text += "\\n";
        } else if (static_cast<unsigned char>(c) < 0x20) {
            text += "\\u00";
            text += DIGITS[(c >> 4) & 0xf];
            text += DIGITS[c & 0xf];
        } else {
            text += c;
        }
    }
    text += '"';
}

void append_json(std::string& text, double value)
{
    // JSON has no infinity, but a number beyond all doubles reads as one.
    if (std::isinf(value))
        text += value < 0 ? "-1e999" : "1e999";
    else if (value == 0 && std::signbit(value))
        text += "-0.0";  // -0 reads as an integer, which has no sign
    else
        append_number(text, value);
}

namespace {

// Values of a parameter stand together, under "values" and its name: so the columns are expected.
class CJsonWriter : public CWriter {
public:
    CJsonWriter(CSink& sink, const CZone& zone, json_t kind) : _sink(sink), _zone(zone), _kind(kind)
    {
    }

    void begin(const columns_t& columns) override
    {
        _columns = columns;
        if (_kind == JSON_ARRAY) _sink.add("[");
    }

    void row(const cells_t& cells) override
    {
        std::string& text = _sink.text();
        if (_kind == JSON_ARRAY) text += _any ? ",\n " : "\n ";
        _any = true;
        text += '{';
        bool first = true, in_values = false;
        const std::string* param = nullptr;
        for (size_t i = 0; i < cells.size(); ++i) {
            if (cells[i]._kind == cell_t::NONE) continue;
            const column_t& column = _columns[i];
            if (param && column._param != *param) {
                text += '}';
                param = nullptr;
            }
            if (!first) text += ", ";
            first = false;
            if (column._param.empty()) {
                append_json(text, column._name);
            } else {
                if (!in_values) text += "\"values\": {";
                in_values = true;
                if (!param) {
                    append_json(text, column._param);
                    text += ": {";
                    param = &column._param;
                }
                append_json(text, column._aggregate);
            }
            text += ": ";
            append_cell(cells[i], column._kind);
        }
        if (param) text += '}';
        if (in_values) text += '}';
        text += '}';
        if (_kind == JSON_LINES) text += '\n';
        _sink.added();
    }

    void end() override
    {
        if (_kind == JSON_ARRAY) _sink.add(_any ? "\n]\n" : "]\n");
    }

private:
    void append_cell(const cell_t& cell, column_kind_t kind)
    {
        std::string& text = _sink.text();
        switch (cell._kind) {
            case cell_t::INTEGER:
                if (kind == COLUMN_TIME) {
                    text += '"';
                    _zone.append(text, cell._integer);
                    text += '"';
                } else {
                    append_number(text, cell._integer);
                }
                break;
            case cell_t::NUMBER:
                append_json(text, cell._number);
                break;
            case cell_t::TEXT:
                append_json(text, cell._text);
                break;
            default:
                text += "null";
        }
    }

    CSink& _sink;
    const CZone& _zone;
    json_t _kind;
    columns_t _columns;
    bool _any = false;
};

}  // namespace

writer_t make_json_writer(CSink& sink, const CZone& zone, json_t kind)
{
    return std::make_unique<CJsonWriter>(sink, zone, kind);
}

}  // namespace trendlog
