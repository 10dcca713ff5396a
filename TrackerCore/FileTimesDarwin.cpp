#include "TrackerCore/FileTimes.h"

namespace skeldrin::files {

void statTimes(const struct stat& info, std::int64_t& modified, std::int64_t& changed)
{
    modified = info.st_mtimespec.tv_sec * 1'000'000'000LL + info.st_mtimespec.tv_nsec;
    changed = info.st_ctimespec.tv_sec * 1'000'000'000LL + info.st_ctimespec.tv_nsec;
}

} // namespace skeldrin::files
