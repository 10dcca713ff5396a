#include "Skeldrin/model/RowText.h"

#include <chrono>

namespace skeldrin {

std::string elapsed(Date since, Date now)
{
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - since).count();
    if (seconds < 60) return "now";
    if (seconds < 3600) return std::to_string(seconds / 60) + "m";
    if (seconds < 86400) return std::to_string(seconds / 3600) + "h";
    return std::to_string(seconds / 86400) + "d";
}

std::string place(const SessionsModel& model, const ListedSession& entry)
{
    switch (entry.role) {
    case ListedSession::Role::main:
        return entry.session.origin.appName();
    case ListedSession::Role::child:
        return "Run by " + model.parentName(entry.session).value_or("a session");
    case ListedSession::Role::detached:
        return "Background job";
    }
    return {};
}

std::string statusWord(const ListedSession& entry)
{
    if (entry.session.endedAt) return "Ended";
    if (entry.shade.kind == Shade::Kind::waitingOnRuns) return "Waiting on background work";
    return std::string(label(entry.shade.status));
}

} // namespace skeldrin
