#pragma once
#include "Skeldrin/model/AppSettings.h"
#include "Skeldrin/model/Headliner.h"
#include "Skeldrin/model/Seams.h"
#include "Skeldrin/model/SessionList.h"
#include "TrackerCore/HookInstaller.h"
#include "TrackerCore/SessionStore.h"
#include "TrackerCore/TranscriptTail.h"

#include <QFileSystemWatcher>
#include <QObject>
#include <QStringList>
#include <QTimer>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace skeldrin {

// The application's one live model of Claude Code sessions, on the GUI thread. It follows the sessions
// directory (a watch plus a two-second cycle), reads transcripts for what hooks do not report, and
// writes back on the user's behalf. Views read it and redraw on its ...Changed signals.
class SessionsModel : public QObject {
    Q_OBJECT
public:
    using HeadlineWriter = std::function<void(const Headliner::Request&, const QStringList& running,
                                              QObject* context, std::function<void(Headliner::Outcome)> done)>;
    using ClaudeLocator = std::function<void(const QStringList& running, QObject* context,
                                             std::function<void(std::optional<QString>)> done)>;

    // Everything the model needs from outside; unset members get the real thing.
    struct Dependencies {
        Clock* clock = nullptr;
        ProcessTable* processes = nullptr;
        Jumper* jumper = nullptr;
        Alerts* alerts = nullptr;
        AppSettings* settings = nullptr;
        // Empty: no headline requests are ever started (the command line only shows existing ones).
        HeadlineWriter headlineWriter;
        ClaudeLocator claudeLocator;
        std::optional<std::filesystem::path> hookExecutable; // default: skeldrin-hook beside this program
        std::optional<std::filesystem::path> claudeSettings; // default: HookInstaller::settingsURL()
        int cycleMilliseconds = 2000;
    };

    static constexpr std::int64_t transcriptBudget = 524288;

    explicit SessionsModel(SessionStore store, QObject* parent = nullptr);
    SessionsModel(SessionStore store, Dependencies dependencies, QObject* parent = nullptr);
    ~SessionsModel() override;

    void start();
    void reload();
    // One pass of the two-second cycle: prune, transcripts, expiry, reload.
    void refreshCycle();
    void readTranscripts();
    void dropExpiredTasks();

    // Observed state.
    const std::vector<Session>& stored() const { return stored_; }
    HookInstaller::State hookState() const { return hookState_; }
    const std::map<std::string, std::string>& transcriptTitles() const { return transcriptTitles_; }
    const std::set<std::string>& foldedRuns() const { return foldedRuns_; }
    const std::map<std::string, std::vector<TranscriptTail::BackgroundTask>>& backgroundTasks() const
    {
        return backgroundTasks_;
    }
    bool headlinesEnabled() const { return headlinesEnabled_; }
    void setHeadlinesEnabled(bool enabled);
    const std::optional<QString>& headlineError() const { return headlineError_; }
    const std::set<std::string>& headlinesInFlight() const { return headlinesInFlight_; }
    const SessionStore& store() const { return store_; }

    // The executables of live Claude Code processes known from the sessions.
    QStringList runningClaudes() const;

    // The list the views show, and what they say of it.
    std::vector<ListedSession> list() const;
    std::string displayName(const Session& session) const;
    std::optional<std::string> parentName(const Session& session) const;
    void toggleRuns(const ListedSession& entry);
    std::optional<Status> mostUrgent() const;

    // What the user asks for.
    // Failures reach the alerts; finished (if given) learns whether the jump was made, once the
    // jumper is done.
    void jump(const ListedSession& entry, std::function<void(bool jumped)> finished = {});
    void dismiss(const Session& session);
    void connectClaudeCode();
    void disconnectClaudeCode();
    void refreshHookState();
    std::string hookCommand() const;

Q_SIGNALS:
    void storedChanged();
    void hookStateChanged();
    void transcriptTitlesChanged();
    void foldedRunsChanged();
    void backgroundTasksChanged();
    void headlinesEnabledChanged();
    void headlineErrorChanged();

private:
    void watchStore();
    void scheduleReload();
    void pruneEnded();
    void markSeen(const Session& session);
    void deleteSession(const Session& session);
    void markInterrupted(const std::string& id, Date at);
    void writeHeadlines();
    void checkForClaude(const QStringList& running);
    void setHeadlineError(std::optional<QString> error);
    void updateClaudeSettings(const std::function<Json(Json)>& change);
    void showError(const QString& title, const std::exception& error);
    Date now() const;

    SessionStore store_;
    Dependencies deps_;
    std::unique_ptr<Clock> ownClock_;
    std::unique_ptr<ProcessTable> ownProcesses_;
    std::unique_ptr<AppSettings> ownSettings_;

    std::vector<Session> stored_;
    HookInstaller::State hookState_ = HookInstaller::State::notInstalled;
    std::map<std::string, std::string> transcriptTitles_;
    std::set<std::string> foldedRuns_;
    std::map<std::string, std::vector<TranscriptTail::BackgroundTask>> backgroundTasks_;
    bool headlinesEnabled_ = false;
    std::optional<QString> headlineError_;
    std::set<std::string> headlinesInFlight_;
    std::map<std::string, std::string> headlineFailures_;
    std::map<std::string, std::int64_t> transcriptModified_; // modification times, ns since 1970
    SessionStore::LoadCache loadCache_;
    std::set<std::string> reportedFailures_;
    bool loadedOnce_ = false;
    QFileSystemWatcher* watcher_ = nullptr;
    QTimer* timer_ = nullptr;
    bool reloadPending_ = false;
};

} // namespace skeldrin
