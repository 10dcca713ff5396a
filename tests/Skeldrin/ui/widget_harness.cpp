// Runs the real widget for the window tests: the real hook records a few sessions into the store of
// $HOME (a temporary one), then the real model, updater and panel show them.
// Usage: widget_harness <skeldrin-hook> <settings.ini>
#include "Skeldrin/model/AppSettings.h"
#include "Skeldrin/model/SessionsModel.h"
#include "Skeldrin/model/Updates.h"
#include "Skeldrin/ui/WidgetPanel.h"
#include "TrackerCore/SessionStore.h"

#include <QApplication>
#include <QProcess>
#include <QTextStream>

using namespace skeldrin;

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    if (argc != 3) {
        QTextStream(stderr) << "usage: widget_harness <skeldrin-hook> <settings.ini>\n";
        return 2;
    }
    // One running session with a prompt, one waiting for an approval, one done.
    for (const auto& [event, id, extra] :
         {std::tuple{"UserPromptSubmit", "render-fix",
                     R"(,"prompt":"Fix the flaky render test in the widget")"},
          {"SessionStart", "api-docs", ""},
          {"PermissionRequest", "api-docs", R"(,"tool_name":"Bash")"},
          {"UserPromptSubmit", "release-notes", R"(,"prompt":"Draft the release notes")"},
          {"Stop", "release-notes", ""}}) {
        QProcess hook;
        hook.start(QString::fromLocal8Bit(argv[1]), {});
        hook.write(QStringLiteral(R"({"hook_event_name":"%1","session_id":"%2","cwd":"/work/%2"%3})")
                       .arg(QLatin1String(event), QLatin1String(id), QLatin1String(extra))
                       .toUtf8());
        hook.closeWriteChannel();
        if (!hook.waitForFinished(5000) || hook.exitStatus() != QProcess::NormalExit ||
            hook.exitCode() != 0) {
            QTextStream(stderr) << "widget_harness: the hook failed on " << event << "\n";
            return 1;
        }
    }
    AppSettings settings(QString::fromLocal8Bit(argv[2]));
    SessionsModel::Dependencies deps;
    deps.settings = &settings;
    SessionsModel model(SessionStore::defaultStore(), std::move(deps));
    Updates updates(Updates::Dependencies{});
    WidgetPanel panel(model, updates, settings, {{}, [] { QApplication::quit(); }});
    model.start();
    panel.refreshVisibility();
    QTextStream(stdout) << "ready\n";
    return app.exec();
}
