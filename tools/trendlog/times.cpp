#include "times.h"

#include <date/tz.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <limits>

#include "numbers.h"

namespace trendlog {

namespace {

constexpr int64_t DAY = 86400;

struct civil_t {
    int64_t _year;
    unsigned _month;
    unsigned _day;
};

int64_t floor_div(int64_t a, int64_t b) { return a / b - (a % b != 0 && (a < 0) != (b < 0)); }

// Days since 1970 to a date of the Gregorian calendar and back: years that begin in March, so that
// the leap day is the last one, in eras of 400 years.
civil_t civil_of(int64_t days)
{
    days += 719468;
    const int64_t era = floor_div(days, 146097);
    const int64_t of_era = days - era * 146097;
    const int64_t year = (of_era - of_era / 1460 + of_era / 36524 - of_era / 146096) / 365;
    const int64_t of_year = of_era - (365 * year + year / 4 - year / 100);
    const int64_t month = (5 * of_year + 2) / 153;
    civil_t civil{};
    civil._day = static_cast<unsigned>(of_year - (153 * month + 2) / 5 + 1);
    civil._month = static_cast<unsigned>(month < 10 ? month + 3 : month - 9);
    civil._year = year + era * 400 + (civil._month <= 2 ? 1 : 0);
    return civil;
}

int64_t days_of(int64_t year, unsigned month, unsigned day)
{
    if (month <= 2) --year;
    const int64_t era = floor_div(year, 400);
    const int64_t of_era = year - era * 400;
    const int64_t of_year = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    return era * 146097 + of_era * 365 + of_era / 4 - of_era / 100 + of_year - 719468;
}

unsigned days_in(int64_t year, unsigned month)
{
    const int64_t next = month == 12 ? days_of(year + 1, 1, 1) : days_of(year, month + 1, 1);
    return static_cast<unsigned>(next - days_of(year, month, 1));
}

void append_digits(std::string& text, int64_t value, int width)
{
    char digits[24];
    int n = 0;
    for (; value > 0 || n < width; value /= 10)
        digits[n++] = static_cast<char>('0' + value % 10);
    while (n > 0)
        text += digits[--n];
}

void append_pair(std::string& text, int64_t value)
{
    const char digits[] = {static_cast<char>('0' + value / 10),
                           static_cast<char>('0' + value % 10)};
    text.append(digits, 2);
}

void append_date(std::string& text, int64_t days, char between)
{
    const civil_t civil = civil_of(days);
    if (civil._year < 0) text += '-';
    append_digits(text, civil._year < 0 ? -civil._year : civil._year, 4);
    text += between;
    append_pair(text, civil._month);
    text += between;
    append_pair(text, civil._day);
}

void append_clock(std::string& text, int64_t second, bool with_seconds)
{
    append_pair(text, second / 3600);
    text += ':';
    append_pair(text, second / 60 % 60);
    if (!with_seconds) return;
    text += ':';
    append_pair(text, second % 60);
}

}  // namespace

int64_t present() { return static_cast<int64_t>(std::time(nullptr)); }

// Zones ----------------------------------------------------------------------------------------

struct CZone::rules_t {
    const date::time_zone* _zone;
};

CZone::CZone(const std::string& name) : _name(name)
{
    if (name == "UTC" || name == "Z") return;
    try {
        const date::time_zone* const zone =
            name == "local" ? date::current_zone() : date::locate_zone(name);
        _rules = std::make_unique<rules_t>(rules_t{zone});
        _name = zone->name();
    } catch (const std::exception&) {
        throw usage_t("--tz: there is no time zone '" + name +
                      "'; names are like Europe/Berlin, local or UTC");
    }
}

CZone::~CZone() = default;

int64_t CZone::offset_at(int64_t time) const
{
    if (!_rules) return 0;
    if (time >= _begin && time < _end) return _offset;
    const date::sys_info info =
        _rules->_zone->get_info(date::sys_seconds(std::chrono::seconds(time)));
    _begin = info.begin.time_since_epoch().count();
    _end = info.end.time_since_epoch().count();
    _offset = info.offset.count();
    return _offset;
}

int64_t CZone::moment_of(int64_t local) const
{
    if (!_rules) return local;
    const date::local_info info =
        _rules->_zone->get_info(date::local_seconds(std::chrono::seconds(local)));
    if (info.result == date::local_info::nonexistent)
        return info.first.end.time_since_epoch().count();
    return local - info.first.offset.count();
}

void CZone::append(std::string& text, int64_t time) const
{
    const int64_t offset = offset_at(time);
    const int64_t local = time + offset;
    const int64_t days = floor_div(local, DAY);
    if (days != _day || _date.empty()) {
        _date.clear();
        append_date(_date, days, '-');
        _date += 'T';
        _day = days;
    }
    text += _date;
    append_clock(text, local - days * DAY, true);
    if (!_rules) {
        text += 'Z';
        return;
    }
    text += offset < 0 ? '-' : '+';
    append_clock(text, offset < 0 ? -offset : offset, false);
}

std::string CZone::text(int64_t time) const
{
    std::string text;
    append(text, time);
    return text;
}

std::string CZone::short_text(int64_t time) const
{
    const int64_t local = time + offset_at(time);
    const int64_t days = floor_div(local, DAY);
    std::string text;
    append_date(text, days, '-');
    text += ' ';
    append_clock(text, local - days * DAY, local % 60 != 0);
    return text;
}

// Reading times --------------------------------------------------------------------------------

namespace {

// Walks over a text. What does not fit leaves it failed.
class CCursor {
public:
    explicit CCursor(const std::string& text) : _text(text) {}

    bool at_end() const { return _at == _text.size(); }
    char look() const { return at_end() ? '\0' : _text[_at]; }
    bool take(char c)
    {
        if (look() != c) return false;
        ++_at;
        return true;
    }

    // Exactly so many digits.
    bool digits(int n, int64_t& value)
    {
        value = 0;
        for (; n > 0; --n, ++_at) {
            if (look() < '0' || look() > '9') return false;
            value = value * 10 + (look() - '0');
        }
        return true;
    }

    bool number(int64_t& value)
    {
        const size_t begin = _at;
        while (look() >= '0' && look() <= '9')
            ++_at;
        return read_number(_text.substr(begin, _at - begin), value);
    }

    double fraction()
    {
        double value = 0;
        for (double unit = 0.1; look() >= '0' && look() <= '9'; unit /= 10, ++_at)
            value += unit * (look() - '0');
        return value;
    }

    std::string rest() const { return _text.substr(_at); }

private:
    const std::string& _text;
    size_t _at = 0;
};

bool take_date(CCursor& cursor, int64_t& days)
{
    int64_t year = 0, month = 0, day = 0;
    if (!cursor.digits(4, year) || !cursor.take('-') || !cursor.digits(2, month) ||
        !cursor.take('-') || !cursor.digits(2, day))
        return false;
    if (month < 1 || month > 12 || day < 1) return false;
    if (day > days_in(year, static_cast<unsigned>(month))) return false;
    days = days_of(year, static_cast<unsigned>(month), static_cast<unsigned>(day));
    return true;
}

// hh:mm with seconds and a fraction where they follow; 24:00 is the end of the day.
bool take_clock(CCursor& cursor, double& seconds)
{
    int64_t hour = 0, minute = 0, second = 0;
    if (!cursor.digits(2, hour) || !cursor.take(':') || !cursor.digits(2, minute)) return false;
    double fraction = 0;
    if (cursor.take(':')) {
        if (!cursor.digits(2, second)) return false;
        if (cursor.take('.')) fraction = cursor.fraction();
    }
    if (hour > 24 || minute > 59 || second > 60) return false;
    if (hour == 24 && (minute > 0 || second > 0 || fraction > 0)) return false;
    seconds = static_cast<double>(hour * 3600 + minute * 60 + second) + fraction;
    return true;
}

bool take_offset(CCursor& cursor, int64_t& offset)
{
    offset = 0;
    if (cursor.take('Z') || cursor.take('z')) return true;
    const bool west = cursor.look() == '-';
    if (!cursor.take('+') && !cursor.take('-')) return false;
    int64_t hours = 0, minutes = 0;
    if (!cursor.digits(2, hours)) return false;
    cursor.take(':');
    if (!cursor.digits(2, minutes) || hours > 23 || minutes > 59) return false;
    offset = (hours * 3600 + minutes * 60) * (west ? -1 : 1);
    return true;
}

// A date, with a time or without, with an offset or without; without one it is local.
bool take_moment(const std::string& text, double& local, int64_t& offset, bool& has_offset)
{
    CCursor cursor(text);
    int64_t days = 0;
    double seconds = 0;
    has_offset = false;
    if (!take_date(cursor, days)) return false;
    if (cursor.take('T') || cursor.take('t') || cursor.take(' ')) {
        if (!take_clock(cursor, seconds)) return false;
        if (!cursor.at_end()) has_offset = take_offset(cursor, offset);
    }
    local = static_cast<double>(days * DAY) + seconds;
    return cursor.at_end();
}

[[noreturn]] void refuse_time(const std::string& text)
{
    throw usage_t("'" + text +
                  "' is no time; times are like 2018-03-01, 2018-03-01T12:00:00+01:00, "
                  "1519902000, now-7d, today or last-1d");
}

int64_t stored(const std::function<int64_t()>& ask, const std::string& text)
{
    if (!ask) refuse_time(text);
    const int64_t time = ask();
    if (time == -1) throw failure_t("'" + text + "': there are no rows yet");
    return time;
}

}  // namespace

bool parse_rfc3339(const std::string& text, double& seconds)
{
    double local = 0;
    int64_t offset = 0;
    bool has_offset = false;
    if (!take_moment(text, local, offset, has_offset) || !has_offset) return false;
    seconds = local - static_cast<double>(offset);
    return true;
}

int64_t parse_time(const std::string& text, const CZone& zone, const clock_t& clock)
{
    int64_t time = 0;
    if (read_number(text, time)) {
        if (time < 0) refuse_time(text);
        return time;
    }

    double local = 0;
    int64_t offset = 0;
    bool has_offset = false;
    if (take_moment(text, local, offset, has_offset)) {
        const int64_t whole = static_cast<int64_t>(std::floor(local));
        time = has_offset ? whole - offset : zone.moment_of(whole);
        if (time < 0) refuse_time(text);
        return time;
    }

    const size_t sign = text.find_first_of("+-");
    const std::string word = text.substr(0, sign);
    if (word == "now") {
        time = clock._now;
    } else if (word == "today") {
        const int64_t shown = clock._now + zone.offset_at(clock._now);
        time = zone.moment_of(floor_div(shown, DAY) * DAY);
    } else if (word == "first") {
        time = stored(clock._first, text);
    } else if (word == "last") {
        time = stored(clock._last, text);
    } else {
        refuse_time(text);
    }
    if (sign == std::string::npos) return time;
    const int64_t away = parse_duration(text.substr(sign + 1));
    time = text[sign] == '-' ? time - away : time + away;
    return time < 0 ? 0 : time;
}

// Durations ------------------------------------------------------------------------------------

namespace {

struct unit_t {
    char _letter;
    int64_t _seconds;
};
constexpr unit_t UNITS[] = {{'w', 7 * DAY}, {'d', DAY}, {'h', 3600}, {'m', 60}, {'s', 1}};

bool read_duration(const std::string& text, int64_t& seconds)
{
    constexpr int64_t MOST = int64_t(1) << 40;  // no sum of them gets out of hand
    CCursor cursor(text);
    seconds = 0;
    while (!cursor.at_end()) {
        int64_t n = 0;
        if (!cursor.number(n) || n > MOST) return false;
        const char letter = cursor.look();
        cursor.take(letter);
        int64_t unit = 0;
        for (const unit_t& each : UNITS)
            if (each._letter == letter) unit = each._seconds;
        if (unit == 0) return false;
        seconds += n * unit;
        if (seconds > MOST) return false;
    }
    return seconds > 0;
}

}  // namespace

int64_t parse_duration(const std::string& text)
{
    int64_t seconds = 0;
    if (!read_duration(text, seconds))
        throw usage_t("'" + text + "' is no duration; durations are like 90s, 15m, 12h, 7d or 2w");
    return seconds;
}

std::string duration_text(int64_t seconds)
{
    std::string text;
    for (const unit_t& unit : UNITS) {
        if (unit._letter == 'w' && seconds % unit._seconds != 0) continue;  // 7d, but no 1w3d
        if (seconds < unit._seconds) continue;
        append_number(text, seconds / unit._seconds);
        text += unit._letter;
        seconds %= unit._seconds;
    }
    return text.empty() ? "0s" : text;
}

unsigned long parse_period(const std::string& text)
{
    int64_t minutes = 0;
    if (!read_number(text, minutes)) {
        int64_t seconds = 0;
        if (read_duration(text, seconds) && seconds % 60 == 0) minutes = seconds / 60;
    }
    if (minutes < 1 || minutes > int64_t(std::numeric_limits<uint32_t>::max()))
        throw usage_t("'" + text + "' is no period; periods are minutes, 15, or like 15m, 1h, 1d");
    return static_cast<unsigned long>(minutes);
}

// Steps ----------------------------------------------------------------------------------------

namespace {

// "month", "3month", "year": calendar months.
bool read_months(const std::string& text, int64_t& months)
{
    for (const auto& [word, length] : {std::pair("month", 1), std::pair("year", 12)}) {
        const size_t at = text.find(word);
        if (at == std::string::npos || text.substr(at) != word) continue;
        int64_t n = 1;
        if (at > 0 && (!read_number(text.substr(0, at), n) || n < 1 || n > 1200)) return false;
        months = n * length;
        return true;
    }
    return false;
}

}  // namespace

CSteps::CSteps(const std::string& text, const CZone& zone) : _zone(&zone)
{
    if (read_months(text, _months)) {
        // nothing else
    } else if (!read_duration(text, _seconds)) {
        throw usage_t("'" + text + "' is no step; steps are like 15m, 1h, 1d, 1w, month or year");
    } else if (_seconds % DAY == 0) {
        _days = _seconds / DAY;
    } else if (_seconds % 60 != 0) {
        throw usage_t("'" + text + "' is no step: it is not of whole minutes");
    }
}

int64_t CSteps::at_or_before(int64_t time) const
{
    if (_months == 0 && _days == 0) return floor_div(time, _seconds) * _seconds;
    const int64_t days = floor_div(time + _zone->offset_at(time), DAY);
    int64_t edge = 0;
    if (_days > 0) {
        const int64_t monday = 4;  // weeks begin on Mondays; 1970-01-05 was one
        edge = monday + floor_div(days - monday, _days) * _days;
    } else {
        const civil_t civil = civil_of(days);
        const int64_t month = floor_div(civil._year * 12 + civil._month - 1, _months) * _months;
        edge = days_of(floor_div(month, 12), static_cast<unsigned>(month % 12 + 1), 1);
    }
    return _zone->moment_of(edge * DAY);
}

int64_t CSteps::after(int64_t edge) const
{
    if (_months == 0 && _days == 0) return edge + _seconds;
    const int64_t days = floor_div(edge + _zone->offset_at(edge), DAY);
    if (_days > 0) return _zone->moment_of((days + _days) * DAY);
    const civil_t civil = civil_of(days);
    const int64_t month = civil._year * 12 + civil._month - 1 + _months;
    const int64_t first = days_of(floor_div(month, 12), static_cast<unsigned>(month % 12 + 1), 1);
    return _zone->moment_of(first * DAY);
}

}  // namespace trendlog
