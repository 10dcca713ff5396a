#pragma once
#include "TrackerCore/Date.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace skeldrin {

// What the end of a Claude Code transcript says: its title, a trailing interrupt, and the background
// work still open.
struct TranscriptTail {
    struct BackgroundTask {
        std::string id;       // tool-use id of the call that started it
        Date startedAt{};     // stamp of the assistant line, or the distant past
        std::string title;    // never empty
        std::optional<Date> expiresAt;

        bool operator==(const BackgroundTask&) const = default;
    };

    std::optional<std::string> title;
    std::optional<Date> interruptedAt;
    std::vector<BackgroundTask> runningBackgroundTasks;

    bool operator==(const TranscriptTail&) const = default;

    // Reads at most the last maxBytes of the file (a positioned read) and parses them.
    // Open, size and read failures are thrown as std::system_error / std::filesystem::filesystem_error.
    static TranscriptTail read(const std::filesystem::path& path, std::int64_t maxBytes);
    // Never fails: lines that do not decode are skipped.
    static TranscriptTail parse(std::string_view bytes);
    // Tasks started and not yet seen to end, oldest first. Lines in file order, no empty lines.
    // (Named apart from the field above, which holds its result.)
    static std::vector<BackgroundTask> runningBackgroundTasksIn(const std::vector<std::string_view>& lines);
};

} // namespace skeldrin
