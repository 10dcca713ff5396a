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

namespace {

bool runHook(const QString& hook, const QString& event, const QString& id, const QString& extra)
{
    QProcess process;
    process.start(hook, {});
    if (!process.waitForStarted(5000)) return false;
    process.write(QStringLiteral(R"({"hook_event_name":"%1","session_id":"%2","cwd":"/work/%2"%3})")
                      .arg(event, id, extra)
                      .toUtf8());
    process.closeWriteChannel();
    return process.waitForFinished(5000) && process.exitCode() == 0;
}

} // namespace

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    if (argc != 3) {
        QTextStream(stderr) << "usage: widget_harness <skeldrin-hook> <settings.ini>\n";
        return 2;
    }
    const QString hook = QString::fromLocal8Bit(argv[1]);
    const bool recorded =
        runHook(hook, QStringLiteral("UserPromptSubmit"), QStringLiteral("render-fix"),
                QStringLiteral(R"(,"prompt":"Fix the flaky render test in the widget")")) &&
        runHook(hook, QStringLiteral("SessionStart"), QStringLiteral("api-docs"), {}) &&
        runHook(hook, QStringLiteral("PermissionRequest"), QStringLiteral("api-docs"),
                QStringLiteral(R"(,"tool_name":"Bash")")) &&
        runHook(hook, QStringLiteral("UserPromptSubmit"), QStringLiteral("release-notes"),
                QStringLiteral(R"(,"prompt":"Draft the release notes")")) &&
        runHook(hook, QStringLiteral("Stop"), QStringLiteral("release-notes"), {});
    if (!recorded) {
        QTextStream(stderr) << "widget_harness: the hook failed\n";
        return 1;
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
