#pragma once
#include "TrackerCore/Json.h"
#include "TrackerCore/JsonScan.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace skeldrin {

// One hook payload as Claude Code writes it to the hook command's standard input.
struct HookEvent {
    struct ToolInput {
        // Each question is accepted whatever it holds; only their number matters.
        struct Question {
            bool operator==(const Question&) const = default;
        };
        std::optional<std::string> command;
        std::optional<std::string> filePath;
        std::optional<std::vector<Question>> questions;

        bool operator==(const ToolInput&) const = default;
    };

    std::string name;
    std::string sessionId;
    std::optional<std::string> cwd;
    std::optional<std::string> transcriptPath;
    std::optional<std::string> source;
    std::optional<std::string> prompt;
    std::optional<std::string> sessionTitle;
    std::optional<std::string> toolName;
    std::optional<std::string> toolUseId;
    std::optional<ToolInput> toolInput;
    std::optional<std::string> notificationType;
    std::optional<std::string> message;
    std::optional<bool> isInterrupt;
    std::optional<std::string> reason;

    bool operator==(const HookEvent&) const = default;

    static HookEvent fromJson(const Json& json); // throws DecodingError
    // Decodes a whole payload; throws DecodingError for bad JSON or a bad shape.
    static HookEvent decode(std::string_view payload);
    // The same, reading the payload piece by piece: only the members used here are ever held.
    static HookEvent read(const json_scan::Reader& reader);
};

} // namespace skeldrin
