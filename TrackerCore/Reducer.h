#pragma once
#include "TrackerCore/Date.h"
#include "TrackerCore/HookEvent.h"
#include "TrackerCore/Origin.h"
#include "TrackerCore/Session.h"

#include <optional>
#include <string>
#include <string_view>

// The state machine of a session: pure functions from a record and an input to the next record.
namespace skeldrin::Reducer {

// The next record for a hook event, or nothing when the session's file is to be removed.
std::optional<Session> apply(const HookEvent& event, const std::optional<Session>& session,
                             const HookContext& context, Date now);

Session seen(Session session, Date at);
Session dismissed(Session session, Date at);
Session interrupted(Session session, Date at);
Session processEnded(Session session, Date at);

// First line of the text, trimmed, at most 120 characters (119 and an ellipsis when longer).
std::string summarize(std::string_view text);
// "Bash: npm test", "Edit: main.c", or the tool name alone.
std::optional<std::string> describe(const std::optional<std::string>& tool,
                                    const std::optional<HookEvent::ToolInput>& input);

} // namespace skeldrin::Reducer
