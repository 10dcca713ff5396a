#pragma once
#include "TrackerCore/Json.h"

#include <array>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

// Edits the "hooks" object of Claude Code's settings: adds and removes this app's hook command and
// tells whether it is installed. Everything else in the file is left alone.
namespace skeldrin::HookInstaller {

enum class State { notInstalled, installed, outdated };
std::string_view rawValue(State state);

struct EventRow {
    std::string_view event;
    std::optional<std::string_view> matcher;
};
// The eleven events the hook is installed for, in order.
const std::array<EventRow, 11>& events();

// Thrown when the settings file holds valid JSON whose top level is not an object.
class CorruptFileError : public std::runtime_error {
public:
    explicit CorruptFileError(const std::filesystem::path& file);
    const std::filesystem::path& file() const { return file_; }
    static constexpr int code = 259;

private:
    std::filesystem::path file_;
};

// Thrown by installing when "hooks", or an event's value in it, is not of the shape Claude Code reads:
// replacing it would lose what the user put there.
class UnexpectedShapeError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// ~/.claude/settings.json
std::filesystem::path settingsURL();
// The executable's path in single quotes, inner single quotes written as '\''.
std::string command(const std::filesystem::path& hookExecutable);

State state(const Json& settings, const std::string& command);
Json installing(const std::string& command, Json settings); // throws UnexpectedShapeError
Json removing(Json settings);

// An empty object when there is no file. Throws on read or parse failure, CorruptFileError when the
// top level is not an object.
Json readSettings(const std::filesystem::path& file);
// Writes atomically, after a one-time backup; a symlinked settings file keeps its link and mode.
void writeSettings(const Json& settings, const std::filesystem::path& file);

} // namespace skeldrin::HookInstaller
