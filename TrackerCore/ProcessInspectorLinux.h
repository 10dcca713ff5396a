#pragma once
// The /proc readings behind the Linux process inspector, kept apart so that they can be tested on
// made-up input.
#include "TrackerCore/ProcessInspector.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace skeldrin::ProcessInspector::procfs {

// The fields of /proc/<pid>/stat that the inspector uses.
struct Stat {
    Pid parentPid = 0;
    std::int64_t ttyNr = 0;
    std::uint64_t startTicks = 0; // clock ticks after boot
    std::string shortName;        // comm, UTF-8 with bad bytes replaced

    bool operator==(const Stat&) const = default;
};
std::optional<Stat> parseStat(std::string_view text);

// The device path of a tty_nr for the terminals whose names follow from the number alone
// (pseudo-terminals, virtual consoles, serial ports); absent for no terminal or any other device.
std::optional<std::string> ttyPath(std::int64_t ttyNr);

// The "btime" line of /proc/stat.
std::optional<std::int64_t> bootTime(std::string_view procStat);

// The boot time that start times count from during this boot. /proc/stat's btime moves whenever the
// wall clock is stepped (and drifts under NTP slewing), so a start time built from it would change
// under a live process. The first btime seen in a boot is kept in anchorFile and reused by every
// process of the user. currentBtime is asked only when the file cannot give the anchor; if the file
// is unusable or untrustworthy the current btime is returned and the file is left alone.
std::optional<std::int64_t> bootAnchor(const std::filesystem::path& anchorFile, std::string_view bootId,
                                        const std::function<std::optional<std::int64_t>()>& currentBtime);

// /run/user/<uid>/skeldrin-boot when that directory is writable, else /tmp/skeldrin-boot-<uid>.
std::filesystem::path anchorFilePath();

// Seconds since 1970 of a start given in clock ticks after the anchored boot time, as whole seconds
// plus microseconds so that every reader computes the identical value.
double startTime(std::int64_t anchor, std::uint64_t startTicks, long ticksPerSecond);

} // namespace skeldrin::ProcessInspector::procfs
