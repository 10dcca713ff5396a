// The widget's placement as the settings file keeps it: any bytes decode to a placement or to none, and
// what a placement writes decodes to the same placement.
#include "fuzz/FuzzTarget.h"

#include "Skeldrin/model/Placement.h"

#include <limits>

using namespace skeldrin;

SKELDRIN_FUZZ_TARGET(placement)
{
    const QByteArray json(data.data(), static_cast<qsizetype>(data.size()));
    constexpr double far = std::numeric_limits<double>::max(),
                     endless = std::numeric_limits<double>::infinity();
    const auto placement = Placement::fromJson(json, {YUpRect{-far, -far, endless, endless}});
    SKELDRIN_FUZZ_CHECK(!Placement::fromJson(json, {})); // on no screen at all
    if (!placement) return;
    const YUpRect justThePoint{placement->point.x(), placement->point.y(), 0, 0};
    SKELDRIN_FUZZ_CHECK(Placement::fromJson(placement->toJson(), {justThePoint}) == placement);
}
