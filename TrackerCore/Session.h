#pragma once
#include "TrackerCore/Date.h"
#include "TrackerCore/Json.h"
#include "TrackerCore/Origin.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace skeldrin {

enum class Phase { idle, running };

// In order of urgency: a later case is more urgent.
enum class Status { running, ready, waiting, multiStepWaiting };

inline constexpr std::array<Status, 4> allStatuses{Status::running, Status::ready, Status::waiting,
                                                   Status::multiStepWaiting};
std::string_view rawValue(Status status);
std::optional<Status> statusFromRawValue(std::string_view raw);
std::string_view label(Status status);
inline int urgency(Status status) { return static_cast<int>(status); }

std::string_view rawValue(Phase phase);

// One Claude Code session as the hook command last left it.
struct Session {
    std::string id;
    std::string agent;
    std::string cwd;
    std::optional<std::string> title;
    std::optional<std::string> lastPrompt;
    Phase phase = Phase::idle;
    std::int64_t pendingApprovals = 0;
    std::int64_t approvalsThisTurn = 0;
    bool multiStepInput = false;
    std::optional<std::string> waitingFor;
    std::optional<std::vector<std::string>> openPrompts;
    std::optional<std::string> transcriptPath;
    Origin origin;
    std::optional<ProcessRef> process;
    Date startedAt{};
    Date changedAt{};
    std::optional<Date> dismissedAt;
    std::optional<Date> seenAt;
    std::optional<Date> endedAt;
    std::optional<std::string> parentId;
    std::optional<std::string> headline;
    std::optional<std::string> headlinePrompt;

    Session() = default;
    // A new session: idle, no prompts open (an empty list, not an absent one), started now.
    Session(std::string id, std::string agent, std::string cwd, Origin origin,
            std::optional<ProcessRef> process, Date now);

    Status status() const;
    bool isBackground() const;
    // Whether the session stays listed after its process has gone (its host keeps it).
    bool outlivesItsProcess() const;
    std::string projectName() const;

    bool operator==(const Session&) const = default;
};

Json toJson(const Session& session);
Session sessionFromJson(const Json& json); // throws DecodingError

// The session file's bytes, and back (throws DecodingError on bad JSON or a bad record).
std::string encodeSession(const Session& session);
Session decodeSession(std::string_view bytes);

} // namespace skeldrin
