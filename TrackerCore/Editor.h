#pragma once
#include <optional>
#include <string>
#include <vector>

namespace skeldrin {

// An editor in which Claude Code's extension can run a session.
struct Editor {
    std::string bundleId;
    std::string name;
    std::string urlScheme;

    Editor(std::string bundleId, std::string name, std::string urlScheme);
    // The known editor with this bundle identifier; VS Code when it is absent or unknown.
    explicit Editor(const std::optional<std::string>& bundleId);

    static const std::vector<Editor>& known();

    bool operator==(const Editor&) const = default;
};

} // namespace skeldrin
