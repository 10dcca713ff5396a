#pragma once
// The modification and status-change times of a stat record, in nanoseconds since 1970. The record's
// field names differ between platforms (FileTimesLinux.cpp, FileTimesDarwin.cpp).
#include <cstdint>
#include <sys/stat.h>

namespace skeldrin::files {

void statTimes(const struct stat& info, std::int64_t& modified, std::int64_t& changed);

} // namespace skeldrin::files
