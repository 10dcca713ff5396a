// A hook payload through decoding (whole, piecewise and as a full parse would) and the reducer, applied
// to no record and to a session file taken from the same input (after the first NUL byte).
#include "fuzz/FuzzTarget.h"

#include "TrackerCore/Reducer.h"

#include <algorithm>
#include <cstring>
#include <optional>

using namespace skeldrin;

namespace {

std::optional<HookEvent> decoded(std::string_view payload, std::size_t piece)
{
    try {
        if (piece == 0) return HookEvent::decode(payload);
        return HookEvent::read([&](char* buffer, std::size_t capacity) {
            const std::size_t n = std::min({capacity, piece, payload.size()});
            std::memcpy(buffer, payload.data(), n);
            payload.remove_prefix(n);
            return n;
        });
    } catch (const DecodingError&) {
        return std::nullopt;
    }
}

} // namespace

SKELDRIN_FUZZ_TARGET(hook_payload)
{
    const auto nul = data.find('\0');
    const std::string_view payload = data.substr(0, nul);
    const auto event = decoded(payload, 0);
    SKELDRIN_FUZZ_CHECK(decoded(payload, 1 + payload.size() % 7) == event);
    std::optional<HookEvent> full;
    try {
        full = HookEvent::fromJson(Json::parse(payload));
    } catch (const std::exception&) {
    }
    SKELDRIN_FUZZ_CHECK(full == event);
    if (!event) return;

    std::optional<Session> current;
    if (nul != std::string_view::npos) {
        try {
            current = decodeSession(data.substr(nul + 1));
        } catch (const DecodingError&) {
        }
    }
    HookContext context;
    context.origin.termProgram = "iTerm.app";
    context.process = ProcessRef{4242, 1.5};
    const Date now{std::chrono::sys_days{std::chrono::year{2026} / 3 / 14}};
    for (const auto& session : {std::optional<Session>{}, current}) {
        const auto next = Reducer::apply(*event, session, context, now);
        // Whatever the reducer keeps must be storable as it is.
        if (next) SKELDRIN_FUZZ_CHECK(decodeSession(encodeSession(*next)) == *next);
    }
}
