#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "trendlog.h"

// Times, durations and zones. A time is in seconds since the Unix epoch, with 64 bits whatever
// time_t has.

namespace trendlog {

// The zone that times are shown and dates are meant in: UTC, or what --tz names. Throws usage_t for
// a name that the system's zone data does not have.
class CZone {
public:
    explicit CZone(const std::string& name = "UTC");
    ~CZone();

    // Seconds to add to UTC at that moment.
    int64_t offset_at(int64_t time) const;

    // The moment at which clocks of the zone show this (seconds as if it were UTC): the earlier of
    // two, and where they jump over it the moment of the jump.
    int64_t moment_of(int64_t local) const;

    // RFC 3339, "2018-01-01T00:15:00Z" or "…+01:00".
    std::string text(int64_t time) const;
    void append(std::string& text, int64_t time) const;

    // For people: "2018-01-01 00:15", with seconds where there are some, in the zone and without
    // it.
    std::string short_text(int64_t time) const;

    // "UTC", or the name given.
    const std::string& name() const { return _name; }

private:
    struct rules_t;
    std::string _name;
    std::unique_ptr<rules_t> _rules;  // empty for UTC
    // The stretch of one offset that was asked for last.
    mutable int64_t _begin = 0;
    mutable int64_t _end = 0;
    mutable int64_t _offset = 0;
    // The day that was written last: rows come in the order of time.
    mutable int64_t _day = 0;
    mutable std::string _date;
};

// What a time can be given relative to.
struct clock_t {
    int64_t _now;
    std::function<int64_t()> _first = {};  // the first and the last moment that is stored; -1 for
    std::function<int64_t()> _last = {};   // none
};

// Reads epoch seconds, RFC 3339 with any offset, a date or a date with a time in `zone`, `now`,
// `today`, `first`, `last`, each of these with a duration added or taken away. Throws usage_t.
int64_t parse_time(const std::string& text, const CZone& zone, const clock_t& clock);

// RFC 3339 alone, also with a fraction: seconds, false where it is none.
bool parse_rfc3339(const std::string& text, double& seconds);

// "90s", "15m", "1h30m", "1d", "2w": seconds, 1 or more. Throws usage_t.
int64_t parse_duration(const std::string& text);
// Shortest, "15m", "1d".
std::string duration_text(int64_t seconds);
// Minutes of a period, from "15" or "15m" or "1d". Throws usage_t.
unsigned long parse_period(const std::string& text);

// Steps from one edge to the next: a duration on the clock of the zone (days and longer) or of UTC
// (shorter), "month" or "year".
class CSteps {
public:
    // Throws usage_t for what is no step.
    CSteps(const std::string& text, const CZone& zone);

    // The edge at or before a moment, and the one after an edge.
    int64_t at_or_before(int64_t time) const;
    int64_t after(int64_t edge) const;

private:
    const CZone* _zone;
    int64_t _seconds = 0;  // of a step shorter than a day
    int64_t _days = 0;     // of a step of days
    int64_t _months = 0;   // of a step of months
};

int64_t present();

}  // namespace trendlog
