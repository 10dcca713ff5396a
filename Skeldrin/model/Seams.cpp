#include "Skeldrin/model/Seams.h"

#include <chrono>

namespace skeldrin {

Date SystemClock::now() const
{
    return std::chrono::time_point_cast<std::chrono::microseconds>(std::chrono::system_clock::now());
}

void ImmediateJumper::start(const Session& session, Done done)
{
    try {
        jump(session);
    } catch (...) {
        done(std::current_exception());
        return;
    }
    done(nullptr);
}

} // namespace skeldrin
