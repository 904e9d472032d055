#pragma once

#include <gmock/gmock.h>

#include <string>

// The lines that a failing statement leaves on standard error, whatever operation it serves.

inline std::string prepare_report(const std::string& message, int code = 1)
{
    return "int toolkit::trend::CStatement::prepare(const tk_string&): sqlite3_prepare(): " +
           std::to_string(code) + " (" + message + ")\n";
}

inline std::string step_report(int code, const std::string& message)
{
    return "int toolkit::trend::CStatement::step(): sqlite3_step(): " + std::to_string(code) +
           " (" + message + ")\n";
}

// The reset of a statement repeats the failure of its last step.
inline std::string reset_report(int code, const std::string& message)
{
    return "int toolkit::trend::CStatement::reset(): sqlite3_reset(): " + std::to_string(code) +
           " (" + message + ")\n";
}

inline std::string step_and_reset_report(int code, const std::string& message)
{
    return step_report(code, message) + reset_report(code, message);
}

// The one line of a bind that refuse_bind has struck, whatever the value's type.
MATCHER(bind_report, "a line of a bind that is refused")
{
    using std::string;
    const string fn = "int toolkit::trend::CStatement::bind(size_t";
    const string why = ": 25 (column index out of range)\n";
    const string& said = arg;
    return said == fn + ", int64_t): sqlite3_bind_int64()" + why ||
           said == fn + ", double): sqlite3_bind_double()" + why ||
           said == fn + ", const tk_string&): sqlite3_bind_text()" + why ||
           said == fn + "): sqlite3_bind_null()" + why ||
           said == fn + ", const toolkit::trend::COptVal&): sqlite3_bind" + why;
}
