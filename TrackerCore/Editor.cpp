#include "TrackerCore/Editor.h"

namespace skeldrin {

Editor::Editor(std::string bundleId_, std::string name_, std::string urlScheme_)
    : bundleId(std::move(bundleId_))
    , name(std::move(name_))
    , urlScheme(std::move(urlScheme_))
{
}

Editor::Editor(const std::optional<std::string>& wanted)
    : Editor(known().front())
{
    if (!wanted) return;
    for (const Editor& editor : known()) {
        if (editor.bundleId == *wanted) {
            *this = editor;
            return;
        }
    }
}

const std::vector<Editor>& Editor::known()
{
    static const std::vector<Editor> table{
        {"com.microsoft.VSCode", "VS Code", "vscode"},
        {"com.microsoft.VSCodeInsiders", "VS Code Insiders", "vscode-insiders"},
        {"com.todesktop.230313mzl4w4u92", "Cursor", "cursor"},
        {"com.exafunction.windsurf", "Windsurf", "windsurf"},
    };
    return table;
}

} // namespace skeldrin
