#include <unistd.h>

#include <algorithm>

#include "numbers.h"
#include "output/writer.h"
#include "talk.h"

namespace trendlog {

namespace {

// Columns for people. The widths are those of the first rows; a later cell that is wider moves what
// follows it. On a terminal the columns that do not fit are left out, and named at the end.
class CTableWriter : public CWriter {
public:
    CTableWriter(CSink& sink, const CZone& zone) : _sink(sink), _zone(zone) {}

    void begin(const columns_t& columns) override
    {
        _columns = columns;
        for (const column_t& column : columns) {
            const std::string& title = column._title.empty() ? column._name : column._title;
            _titles.push_back(column._param.empty() ? title : column._aggregate);
            _groups.push_back(column._param.empty() ? "" : title);
        }
    }

    void row(const cells_t& cells) override
    {
        std::vector<std::string> texts;
        for (size_t i = 0; i < cells.size(); ++i)
            texts.push_back(cell_text(cells[i], _columns[i]));
        ++_rows;
        if (!_waiting_done) {
            _waiting.push_back(std::move(texts));
            if (_waiting.size() >= WAITING) write_waiting();
            return;
        }
        write_line(texts);
    }

    void end() override
    {
        if (!_waiting_done) write_waiting();
        if (_rows == 0) _sink.add("(none)\n");
        if (!_left_out.empty())
            _sink.add("Left out, for " + number_text(int64_t(terminal_columns())) +
                      " columns are too few: " + _left_out + ". --format csv has them.\n");
    }

private:
    static constexpr size_t WAITING = 200;

    std::string cell_text(const cell_t& cell, const column_t& column) const
    {
        switch (cell._kind) {
            case cell_t::INTEGER:
                if (column._kind == COLUMN_TIME) return _zone.text(cell._integer);
                if (column._kind == COLUMN_PERIOD) return duration_text(cell._integer * 60);
                return number_text(cell._integer);
            case cell_t::NUMBER:
                if (column._kind == COLUMN_PERCENT) return percent_text(cell._number);
                return short_number(cell._number);
            case cell_t::TEXT:
                return printable(cell._text);
            default:
                return column._kind == COLUMN_TEXT ? "" : "-";
        }
    }

    // Rounded towards the middle: only all is 100, only nothing is 0.
    static std::string percent_text(double percent)
    {
        char text[NUMBER_SIZE];
        if (percent > 99.9 && percent < 100) percent = 99.9;
        if (percent > 0 && percent < 0.1) percent = 0.1;
        return std::string(
            text,
            std::to_chars(text, text + sizeof text, percent, std::chars_format::fixed, 1).ptr);
    }

    // A line stays a line, and what a name holds does nothing to the terminal.
    static std::string printable(std::string_view value)
    {
        std::string text(value);
        for (char& c : text)
            if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
        return text;
    }

    void write_waiting()
    {
        _waiting_done = true;
        for (size_t i = 0; i < _titles.size(); ++i) {
            size_t width = shown_width(_titles[i]);
            for (const auto& texts : _waiting)
                width = std::max(width, shown_width(texts[i]));
            _widths.push_back(width);
        }
        widen_groups();
        choose_columns();
        if (_rows > 0) {
            const bool colour = wants_colour(STDOUT_FILENO);
            if (colour) _sink.add("\033[1m");
            write_groups();
            write_line(_titles);
            if (colour) _sink.add("\033[0m");
        }
        for (const auto& texts : _waiting)
            write_line(texts);
        _waiting.clear();
    }

    // The columns of one parameter stand under its name.
    size_t end_of_group(size_t i) const
    {
        size_t end = i + 1;
        while (end < _columns.size() && !_groups[i].empty() && _groups[end] == _groups[i])
            ++end;
        return end;
    }

    void widen_groups()
    {
        for (size_t i = 0, end = 0; i < _columns.size(); i = end) {
            end = end_of_group(i);
            size_t width = (end - i - 1) * BETWEEN;
            for (size_t each = i; each < end; ++each)
                width += _widths[each];
            const size_t wanted = shown_width(_groups[i]);
            if (wanted > width) _widths[i] += wanted - width;
        }
    }

    void write_groups()
    {
        std::string line;
        size_t place = 0;
        for (const size_t i : _shown) {
            if (i != _shown.front()) place += BETWEEN;
            if (!_groups[i].empty() && (i == 0 || _groups[i - 1] != _groups[i]))
                line = padded(line, place) + _groups[i];
            place += _widths[i];
        }
        if (!line.empty()) _sink.add(line + "\n");
    }

    // The columns of a parameter are shown together or left out, but for the first column.
    void choose_columns()
    {
        const bool limited = is_terminal(STDOUT_FILENO);
        const size_t room = limited ? static_cast<size_t>(terminal_columns()) : SIZE_MAX;
        size_t used = 0;
        for (size_t i = 0, end = 0; i < _columns.size(); i = end) {
            end = end_of_group(i);
            if (_columns[i]._only_machines) continue;
            size_t width = 0;
            for (size_t each = i; each < end; ++each)
                width += _widths[each] + BETWEEN;
            if (_shown.empty()) width -= BETWEEN;
            const bool fits = _left_out.empty() && (_shown.empty() || used + width <= room);
            used += width;
            for (size_t each = i; each < end; ++each) {
                if (fits)
                    _shown.push_back(each);
                else
                    _left_out += (_left_out.empty() ? "" : ", ") + _columns[each]._name;
            }
        }
    }

    void write_line(const std::vector<std::string>& texts)
    {
        std::string line;
        for (const size_t i : _shown) {
            if (i != _shown.front()) line.append(BETWEEN, ' ');
            const bool to_the_right =
                _columns[i]._kind != COLUMN_TEXT && _columns[i]._kind != COLUMN_TIME;
            line += padded(texts[i], _widths[i], to_the_right);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        _sink.add(line + "\n");
    }

    static constexpr size_t BETWEEN = 2;

    CSink& _sink;
    const CZone& _zone;
    columns_t _columns;
    std::vector<std::string> _titles;
    std::vector<std::string> _groups;
    std::vector<std::vector<std::string>> _waiting;
    bool _waiting_done = false;
    std::vector<size_t> _widths;
    std::vector<size_t> _shown;
    std::string _left_out;
    uint64_t _rows = 0;
};

}  // namespace

writer_t make_table_writer(CSink& sink, const CZone& zone)
{
    return std::make_unique<CTableWriter>(sink, zone);
}

}  // namespace trendlog
