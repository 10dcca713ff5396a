#include "TrackerCore/Date.h"

#include <cmath>
#include <cstdio>

namespace skeldrin {

using namespace std::chrono;

Date distantPast() { return Date{sys_days{year{1} / January / 1}}; }

Date dateFromSeconds(double secondsSince1970)
{
    return Date{microseconds{std::llround(secondsSince1970 * 1e6)}};
}

double secondsSince1970(Date date)
{
    return static_cast<double>(date.time_since_epoch().count()) / 1e6;
}

std::string formatIso8601(Date date)
{
    const auto ms = floor<milliseconds>(date);
    const auto day = floor<days>(ms);
    const year_month_day ymd{day};
    const hh_mm_ss hms{ms - day};
    char buffer[40];
    std::snprintf(buffer, sizeof buffer, "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", static_cast<int>(ymd.year()),
                  static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()),
                  static_cast<int>(hms.hours().count()), static_cast<int>(hms.minutes().count()),
                  static_cast<int>(hms.seconds().count()), static_cast<int>(hms.subseconds().count()));
    return buffer;
}

namespace {

// Reads exactly n digits at pos; false when any is missing.
bool digits(std::string_view text, std::size_t& pos, std::size_t n, int& value)
{
    if (pos + n > text.size()) return false;
    value = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const char c = text[pos + i];
        if (c < '0' || c > '9') return false;
        value = value * 10 + (c - '0');
    }
    pos += n;
    return true;
}

bool literal(std::string_view text, std::size_t& pos, char c)
{
    if (pos >= text.size() || text[pos] != c) return false;
    ++pos;
    return true;
}

} // namespace

std::optional<Date> parseIso8601(std::string_view text)
{
    std::size_t pos = 0;
    int y, mo, d, h, mi, s;
    if (!digits(text, pos, 4, y) || !literal(text, pos, '-') || !digits(text, pos, 2, mo) ||
        !literal(text, pos, '-') || !digits(text, pos, 2, d) || !literal(text, pos, 'T') ||
        !digits(text, pos, 2, h) || !literal(text, pos, ':') || !digits(text, pos, 2, mi) ||
        !literal(text, pos, ':') || !digits(text, pos, 2, s) || !literal(text, pos, '.'))
        return std::nullopt;

    long long fraction = 0; // microseconds
    std::size_t fractionDigits = 0;
    while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
        if (fractionDigits < 6) fraction = fraction * 10 + (text[pos] - '0');
        ++fractionDigits;
        ++pos;
    }
    if (fractionDigits == 0 || fractionDigits > 9) return std::nullopt;
    for (std::size_t i = fractionDigits; i < 6; ++i) fraction *= 10;

    int offsetMinutes = 0;
    if (literal(text, pos, 'Z')) {
    } else if (pos < text.size() && (text[pos] == '+' || text[pos] == '-')) {
        const int sign = text[pos] == '-' ? -1 : 1;
        ++pos;
        int oh, om;
        if (!digits(text, pos, 2, oh)) return std::nullopt;
        literal(text, pos, ':');
        if (!digits(text, pos, 2, om) || oh > 23 || om > 59) return std::nullopt;
        offsetMinutes = sign * (oh * 60 + om);
    } else {
        return std::nullopt;
    }
    if (pos != text.size()) return std::nullopt;

    const year_month_day ymd{year{y}, month{static_cast<unsigned>(mo)}, day{static_cast<unsigned>(d)}};
    if (!ymd.ok() || h > 23 || mi > 59 || s > 59) return std::nullopt;
    return Date{sys_days{ymd}} + hours{h} + minutes{mi} + seconds{s} + microseconds{fraction} -
           minutes{offsetMinutes};
}

} // namespace skeldrin
