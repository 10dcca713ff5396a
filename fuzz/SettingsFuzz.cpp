// Claude Code's settings through reading, the hook state, installing and removing: installing twice is
// installing once, and removing after installing gives back the user's hooks.
#include "fuzz/FuzzTarget.h"

#include "TrackerCore/HookInstaller.h"

#include <filesystem>
#include <fstream>
#include <unistd.h>

using namespace skeldrin;
namespace fs = std::filesystem;

namespace {

// The user's hooks with the empty events and "hooks" object that removing leaves out.
Json withoutEmptyEvents(Json settings)
{
    if (!settings.is_object() || !settings.contains("hooks") || !settings["hooks"].is_object())
        return settings;
    Json& hooks = settings["hooks"];
    for (auto it = hooks.begin(); it != hooks.end();)
        it = it->is_array() && it->empty() ? hooks.erase(it) : std::next(it);
    if (hooks.empty()) settings.erase("hooks");
    return settings;
}

} // namespace

SKELDRIN_FUZZ_TARGET(settings)
{
    static const fs::path file =
        fs::temp_directory_path() / ("skeldrin-fuzz-settings-" + std::to_string(::getpid()));
    std::ofstream(file, std::ios::binary | std::ios::trunc)
        .write(data.data(), static_cast<std::streamsize>(data.size()));
    Json settings;
    try {
        settings = HookInstaller::readSettings(file);
    } catch (const std::exception&) {
        return;
    }
    const std::string command = HookInstaller::command("/opt/it's here/skeldrin-hook");
    HookInstaller::state(settings, command);
    Json installed;
    try {
        installed = HookInstaller::installing(command, settings);
    } catch (const HookInstaller::UnexpectedShapeError&) {
        return;
    }
    SKELDRIN_FUZZ_CHECK(HookInstaller::state(installed, command) == HookInstaller::State::installed);
    SKELDRIN_FUZZ_CHECK(HookInstaller::installing(command, installed) == installed);
    const Json removed = HookInstaller::removing(installed);
    SKELDRIN_FUZZ_CHECK(HookInstaller::state(removed, command) == HookInstaller::State::notInstalled);
    SKELDRIN_FUZZ_CHECK(withoutEmptyEvents(removed) == withoutEmptyEvents(HookInstaller::removing(settings)));
    // What is written reads back the same.
    SKELDRIN_FUZZ_CHECK(Json::parse(encodePretty(installed)) == installed);
}
