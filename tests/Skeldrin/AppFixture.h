#pragma once
// A live model on a temporary store, with settings in a temporary file and a jumper that records.
#include "Skeldrin/model/SessionsModel.h"
#include "Skeldrin/model/Updates.h"

#include <QTemporaryDir>
#include <memory>

namespace skeldrin::test {

class RecordingJumper : public ImmediateJumper {
  public:
    void jump(const Session& session) override
    {
        jumped.push_back(session.id);
        if (failWith) throw std::runtime_error(*failWith);
    }
    std::vector<std::string> jumped;
    std::optional<std::string> failWith;
};

class RecordingAlerts : public Alerts {
  public:
    void showError(const QString& title, const QString& text) override { shown << title + " | " + text; }
    QStringList shown;
};

// Updates in a chosen state, without the network.
class TestUpdates : public Updates {
  public:
    void set(std::optional<UpdateManifest> required, bool downloading, bool awaitingInstall)
    {
        required_ = std::move(required);
        downloading_ = downloading;
        awaitingInstall_ = awaitingInstall;
    }
};

struct AppFixture {
    QTemporaryDir temp;
    std::filesystem::path sessionsDir = std::filesystem::path(temp.path().toStdString()) / "sessions";
    std::filesystem::path claudeSettings = sessionsDir.parent_path() / "claude/settings.json";
    SessionStore store{sessionsDir};
    AppSettings settings{temp.filePath(QStringLiteral("settings.ini"))};
    RecordingJumper jumper;
    RecordingAlerts alerts;
    TestUpdates updates;
    std::unique_ptr<SessionsModel> model;

    // Alerts go to `shownBy` when given, else they are recorded in `alerts`; `adjust` may change the rest.
    explicit AppFixture(Alerts* shownBy = nullptr,
                        const std::function<void(SessionsModel::Dependencies&)>& adjust = {})
    {
        std::filesystem::create_directories(sessionsDir);
        SessionsModel::Dependencies deps;
        deps.jumper = &jumper;
        deps.alerts = shownBy ? shownBy : &alerts;
        deps.settings = &settings;
        deps.hookExecutable = std::filesystem::path(temp.path().toStdString()) / "app/skeldrin-hook";
        deps.claudeSettings = claudeSettings;
        deps.cycleMilliseconds = 3600 * 1000; // tests reload themselves
        if (adjust) adjust(deps);
        model = std::make_unique<SessionsModel>(store, std::move(deps));
    }

    bool setting(const char* key) const { return settings.value(QLatin1String(key)).toBool(); }
    void set(const char* key, const QVariant& value) { settings.setValue(QLatin1String(key), value); }

    // Stores a session and reloads the model.
    void put(const std::string& id, const std::function<void(Session&)>& edit = {})
    {
        Session s(id, "claude", "/work/" + id, {}, std::nullopt,
                  std::chrono::time_point_cast<std::chrono::microseconds>(std::chrono::system_clock::now()));
        if (edit) edit(s);
        store.update(id, [&](const auto&) { return std::optional(s); });
        model->reload();
    }
    void put(const std::string& id, Phase phase, const std::string& parent = {}, int approvals = 0)
    {
        put(id, [&](Session& s) {
            s.phase = phase;
            if (!parent.empty()) s.parentId = parent;
            s.pendingApprovals = approvals;
        });
    }
};

} // namespace skeldrin::test
