#include "TrackerCore/FileTimes.h"

namespace skeldrin::files {

void statTimes(const struct stat& info, std::int64_t& modified, std::int64_t& changed)
{
    modified = info.st_mtim.tv_sec * 1'000'000'000LL + info.st_mtim.tv_nsec;
    changed = info.st_ctim.tv_sec * 1'000'000'000LL + info.st_ctim.tv_nsec;
}

} // namespace skeldrin::files
