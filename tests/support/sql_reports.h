#pragma once

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
