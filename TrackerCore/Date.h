#pragma once
// Dates as the core stores them: UTC instants with microsecond resolution, wide enough for the
// distant past (year 1). Written and read in one fixed ISO 8601 form with milliseconds and "Z".
#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace skeldrin {

using Date = std::chrono::sys_time<std::chrono::microseconds>;

// 0001-01-01T00:00:00.000Z, the date of things that have no date.
Date distantPast();

// Seconds since 1970 (a process start time) as a date, and back.
Date dateFromSeconds(double secondsSince1970);
double secondsSince1970(Date date);

// "2026-03-14T09:26:53.589Z": UTC, milliseconds (truncated toward the past).
std::string formatIso8601(Date date);

// Parses the form above. Fractional seconds are required (1 to 9 digits, kept to the microsecond);
// the zone is "Z" or a numeric offset (+hh:mm or +hhmm). Anything else gives nothing.
std::optional<Date> parseIso8601(std::string_view text);

} // namespace skeldrin
