#include "Skeldrin/model/Seams.h"

#include <chrono>

namespace skeldrin {

Date SystemClock::now() const
{
    return std::chrono::time_point_cast<std::chrono::microseconds>(std::chrono::system_clock::now());
}

} // namespace skeldrin
