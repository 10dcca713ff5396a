#pragma once
#include "TrackerCore/Session.h"

#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace skeldrin {

// The colour a row is painted in: its session's own status, or grey while a ready session only waits
// on its children.
struct Shade {
    enum class Kind { status, waitingOnRuns };
    Kind kind = Kind::status;
    Status status = Status::ready; // meaningful for Kind::status only

    static Shade of(Status status) { return {Kind::status, status}; }
    static Shade waitingOnRuns() { return {Kind::waitingOnRuns, Status::ready}; }
    bool isStatus(Status s) const { return kind == Kind::status && status == s; }
    // "running", "ready", "waiting", "multiStepWaiting" or "waitingOnRuns".
    std::string_view rawValue() const;

    bool operator==(const Shade& other) const
    {
        return kind == other.kind && (kind == Kind::waitingOnRuns || status == other.status);
    }
};

// One row of the session list.
struct ListedSession {
    enum class Role { main, child, detached };

    Session session;
    Role role = Role::main;
    Shade shade;
    int runCount = 0;
    bool runsFolded = false;

    const std::string& id() const { return session.id; }
    // A ready row whose session the user has looked at since it finished.
    bool seen() const { return shade.isStatus(Status::ready) && session.seenAt.has_value(); }

    bool operator==(const ListedSession&) const = default;
};

std::string_view rawValue(ListedSession::Role role);

namespace SessionList {

// Children directly under their parents (depth first), unknown-parent and SDK sessions last,
// dismissed sessions and everything under them left out.
std::vector<ListedSession> arrange(const std::vector<Session>& sessions, const std::set<std::string>& folded);

} // namespace SessionList
} // namespace skeldrin
