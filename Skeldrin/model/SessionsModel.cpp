#include "Skeldrin/model/SessionsModel.h"

#include "TrackerCore/Files.h"
#include "TrackerCore/Reducer.h"
#include "TrackerCore/Text.h"

#include <QCoreApplication>
#include <QDir>
#include <QLoggingCategory>
#include <QPointer>
#include <algorithm>

Q_LOGGING_CATEGORY(lcSessions, "app.skeldrin.sessions")

namespace skeldrin {

namespace {

QString q(const std::string& text) { return QString::fromStdString(text); }

constexpr auto kHeadlinesKey = "headlines.enabled";

std::size_t wordCount(const std::string& utf8)
{
    std::size_t words = 0;
    bool inWord = false;
    for (const char32_t c : text::decodeUtf8(utf8)) {
        const bool space = text::isWhitespaceOrNewline(c);
        if (!space && !inWord) ++words;
        inWord = !space;
    }
    return words;
}

} // namespace

SessionsModel::SessionsModel(SessionStore store, QObject* parent)
    : SessionsModel(std::move(store), Dependencies{}, parent)
{
}

SessionsModel::SessionsModel(SessionStore store, Dependencies dependencies, QObject* parent)
    : QObject(parent)
    , store_(std::move(store))
    , deps_(std::move(dependencies))
{
    if (!deps_.clock) deps_.clock = (ownClock_ = std::make_unique<SystemClock>()).get();
    if (!deps_.processes) deps_.processes = (ownProcesses_ = makeSystemProcessTable()).get();
    if (!deps_.settings) deps_.settings = (ownSettings_ = std::make_unique<AppSettings>()).get();
    headlinesEnabled_ = deps_.settings->boolValue(kHeadlinesKey, false);
}

SessionsModel::~SessionsModel() = default;

Date SessionsModel::now() const { return deps_.clock->now(); }

// ---- Start-up, watching and the cycle ----

void SessionsModel::start()
{
    reload();
    refreshHookState();
    if (headlinesEnabled_) checkForClaude(runningClaudes());
    watchStore();
    delete timer_;
    timer_ = new QTimer(this);
    timer_->setInterval(deps_.cycleMilliseconds);
    connect(timer_, &QTimer::timeout, this, &SessionsModel::refreshCycle);
    timer_->start();
    refreshCycle();
}

void SessionsModel::watchStore()
{
    const QString directory = q(store_.directory().string());
    if (!watcher_) {
        watcher_ = new QFileSystemWatcher(this);
        connect(watcher_, &QFileSystemWatcher::directoryChanged, this, &SessionsModel::scheduleReload);
    }
    if (!watcher_->directories().isEmpty()) return;
    if (!watcher_->addPath(directory))
        qCWarning(lcSessions, "cannot watch %s; relying on the timer", qUtf8Printable(directory));
}

void SessionsModel::scheduleReload()
{
    // A hook's write shows up as several directory events; one reload in this pass of the event loop
    // covers them all.
    if (reloadPending_) return;
    reloadPending_ = true;
    QMetaObject::invokeMethod(
        this,
        [this] {
            reloadPending_ = false;
            reload();
        },
        Qt::QueuedConnection);
}

void SessionsModel::refreshCycle()
{
    pruneEnded();
    readTranscripts();
    dropExpiredTasks();
    reload();
    // The watch goes away with a deleted directory; it comes back once the directory does.
    std::error_code error;
    if (watcher_ && watcher_->directories().isEmpty() && std::filesystem::is_directory(store_.directory(), error))
        watchStore();
}

void SessionsModel::reload()
{
    // Once the directory has been seen, its disappearance is not the news that every session ended:
    // the list stays until the directory is back (the hook recreates it on its next event).
    std::error_code error;
    if (loadedOnce_ && !std::filesystem::exists(store_.directory(), error) && !error) {
        qCWarning(lcSessions, "loading sessions failed: %s",
                  qUtf8Printable(q("the sessions directory " + store_.directory().string() + " is gone")));
        return;
    }
    SessionStore::LoadResult loaded;
    try {
        loaded = store_.loadAll(loadCache_, now());
    } catch (const std::exception& e) {
        qCWarning(lcSessions, "loading sessions failed: %s", e.what());
        return;
    }
    loadedOnce_ = true;
    if (loaded.unchanged) return;

    // A broken file is reported when it breaks, not again on every two-second cycle.
    std::set<std::string> failures;
    for (const auto& failure : loaded.failures) {
        const std::string key = failure.file.string() + "\n" + failure.error;
        if (!reportedFailures_.count(key))
            qCWarning(lcSessions, "skipping %s: %s", failure.file.filename().c_str(), failure.error.c_str());
        failures.insert(key);
    }
    reportedFailures_ = std::move(failures);

    auto sessions = std::move(loaded.sessions);
    std::stable_sort(sessions.begin(), sessions.end(), [](const Session& a, const Session& b) {
        if (a.startedAt != b.startedAt) return a.startedAt < b.startedAt;
        return a.id < b.id;
    });
    if (sessions == stored_) return;
    stored_ = std::move(sessions);
    Q_EMIT storedChanged();
    writeHeadlines();
}

void SessionsModel::readTranscripts()
{
    // A transcript changed within this margin may change again without a visible change of its time:
    // its time is not remembered yet, so it is read once more on a later cycle.
    constexpr auto kSettleMargin = std::chrono::seconds{1};
    const Date current = now();
    bool titlesChanged = false, tasksChanged = false;
    for (const Session& session : stored_) {
        if (!session.transcriptPath) continue;
        const std::filesystem::path path = *session.transcriptPath;
        std::optional<files::FileStamp> stamp;
        try {
            stamp = files::stamp(path);
        } catch (const std::exception&) {
            // Attributes that cannot be read: as with a missing file, the session keeps what it had.
        }
        if (!stamp) continue;
        const std::int64_t modified = stamp->modified;
        const auto known = transcriptModified_.find(session.id);
        if (known != transcriptModified_.end() && known->second == modified) continue;
        const Date modifiedAt{std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::nanoseconds(modified))};
        if (modifiedAt < current - kSettleMargin)
            transcriptModified_[session.id] = modified;
        else
            transcriptModified_.erase(session.id);

        TranscriptTail tail;
        try {
            tail = TranscriptTail::read(path, transcriptBudget);
        } catch (const std::exception& e) {
            qCWarning(lcSessions, "reading transcript failed: %s", e.what());
            transcriptModified_[session.id] = modified;
            continue;
        }
        if (tail.title) {
            const auto it = transcriptTitles_.find(session.id);
            if (it == transcriptTitles_.end() || it->second != *tail.title) {
                transcriptTitles_[session.id] = *tail.title;
                titlesChanged = true;
            }
        }
        if (tail.interruptedAt) markInterrupted(session.id, *tail.interruptedAt);

        std::vector<TranscriptTail::BackgroundTask> kept;
        if (!session.endedAt) {
            const Date processStart = session.process ? dateFromSeconds(session.process->startTime) : distantPast();
            for (auto& task : tail.runningBackgroundTasks)
                if (task.startedAt >= processStart && (!task.expiresAt || *task.expiresAt > current))
                    kept.push_back(std::move(task));
        }
        const auto it = backgroundTasks_.find(session.id);
        if (it == backgroundTasks_.end() || it->second != kept) {
            backgroundTasks_[session.id] = std::move(kept);
            tasksChanged = true;
        }
    }
    if (titlesChanged) Q_EMIT transcriptTitlesChanged();
    if (tasksChanged) Q_EMIT backgroundTasksChanged();
}

void SessionsModel::dropExpiredTasks()
{
    const Date current = now();
    bool changed = false;
    for (auto& [id, tasks] : backgroundTasks_) {
        const auto removed = std::erase_if(tasks, [&](const TranscriptTail::BackgroundTask& task) {
            return task.expiresAt && *task.expiresAt <= current;
        });
        changed = changed || removed > 0;
    }
    if (changed) Q_EMIT backgroundTasksChanged();
}

QStringList SessionsModel::runningClaudes() const
{
    QStringList executables;
    for (const Session& session : stored_) {
        if (!session.process || !deps_.processes->isAlive(*session.process)) continue;
        if (const auto path = deps_.processes->executablePath(session.process->pid)) executables << q(*path);
    }
    return executables;
}

// ---- The list ----

std::vector<ListedSession> SessionsModel::list() const
{
    std::vector<Session> all = stored_;
    for (const Session& parent : stored_) {
        const auto it = backgroundTasks_.find(parent.id);
        if (it == backgroundTasks_.end()) continue;
        for (const auto& task : it->second) {
            Session run("task-" + task.id, parent.agent, parent.cwd, parent.origin, std::nullopt, task.startedAt);
            run.title = task.title;
            run.phase = Phase::running;
            run.parentId = parent.id;
            all.push_back(std::move(run));
        }
    }
    return SessionList::arrange(all, foldedRuns_);
}

std::string SessionsModel::displayName(const Session& session) const
{
    if (headlinesEnabled_ && session.headline) return *session.headline;
    if (const auto it = transcriptTitles_.find(session.id); it != transcriptTitles_.end()) return it->second;
    if (session.title) return *session.title;
    return session.projectName();
}

std::optional<std::string> SessionsModel::parentName(const Session& session) const
{
    if (!session.parentId) return std::nullopt;
    for (const Session& candidate : stored_)
        if (candidate.id == *session.parentId) return displayName(candidate);
    return std::nullopt;
}

void SessionsModel::toggleRuns(const ListedSession& entry)
{
    if (!foldedRuns_.erase(entry.id())) foldedRuns_.insert(entry.id());
    Q_EMIT foldedRunsChanged();
}

std::optional<Status> SessionsModel::mostUrgent() const
{
    std::optional<Status> mostUrgent;
    bool anySeen = false;
    for (const ListedSession& row : list()) {
        if (row.role != ListedSession::Role::main) continue;
        if (row.seen()) {
            anySeen = true;
            continue;
        }
        if (row.shade.kind != Shade::Kind::status) continue;
        if (!mostUrgent || urgency(row.shade.status) > urgency(*mostUrgent)) mostUrgent = row.shade.status;
    }
    if (mostUrgent) return mostUrgent;
    if (anySeen) return Status::ready;
    return std::nullopt;
}

// ---- Upkeep ----

void SessionsModel::showError(const QString& title, const std::exception& error)
{
    if (deps_.alerts) deps_.alerts->showError(title, QString::fromUtf8(error.what()));
}

void SessionsModel::jump(const ListedSession& entry, std::function<void(bool jumped)> finished)
{
    const auto failed = [this, entry, finished](const std::exception& e) {
        qCWarning(lcSessions, "jump failed: %s", e.what());
        showError(QStringLiteral("Couldn't open ") + q(displayName(entry.session)), e);
        if (finished) finished(false);
    };
    if (!deps_.jumper) return failed(std::runtime_error("Jumping to a session isn't available here."));
    deps_.jumper->start(entry.session, [this, alive = QPointer<SessionsModel>(this), entry, finished,
                                        failed](std::exception_ptr error) {
        if (!alive) return;
        if (error) {
            try {
                std::rethrow_exception(error);
            } catch (const std::exception& e) {
                return failed(e);
            } catch (...) {
                return failed(std::runtime_error("The jump failed for an unknown reason."));
            }
        }
        if (entry.session.endedAt)
            deleteSession(entry.session);
        else if (entry.shade.isStatus(Status::ready))
            markSeen(entry.session);
        if (finished) finished(true);
    });
}

void SessionsModel::markSeen(const Session& session)
{
    const Date at = now();
    try {
        store_.update(session.id, [&](const std::optional<Session>& current) -> std::optional<Session> {
            if (!current) return std::nullopt;
            return Reducer::seen(*current, at);
        });
    } catch (const std::exception& e) {
        qCWarning(lcSessions, "marking a session seen failed: %s", e.what());
    }
    reload();
}

void SessionsModel::dismiss(const Session& session)
{
    if (session.endedAt) return deleteSession(session);
    const Date at = now();
    try {
        store_.update(session.id, [&](const std::optional<Session>& current) -> std::optional<Session> {
            if (!current) return std::nullopt;
            return Reducer::dismissed(*current, at);
        });
    } catch (const std::exception& e) {
        showError(QStringLiteral("Couldn't remove ") + q(displayName(session)), e);
    }
    reload();
}

void SessionsModel::deleteSession(const Session& session)
{
    try {
        store_.remove(session.id);
    } catch (const std::exception& e) {
        showError(QStringLiteral("Couldn't remove ") + q(displayName(session)), e);
    }
    reload();
}

void SessionsModel::markInterrupted(const std::string& id, Date at)
{
    try {
        store_.update(id, [&](const std::optional<Session>& current) -> std::optional<Session> {
            if (!current || current->status() == Status::ready || !(at > current->changedAt)) return current;
            return Reducer::interrupted(*current, at);
        });
    } catch (const std::exception& e) {
        qCWarning(lcSessions, "marking interrupt failed: %s", e.what());
    }
}

void SessionsModel::pruneEnded()
{
    for (const Session& session : stored_) {
        if (!session.process || deps_.processes->isAlive(*session.process)) continue;
        try {
            if (session.outlivesItsProcess()) {
                const Date at = now();
                store_.update(session.id, [&](const std::optional<Session>& current) -> std::optional<Session> {
                    // The hook may have recorded a new process since the list was loaded.
                    if (!current || current->process != session.process) return current;
                    return Reducer::processEnded(*current, at);
                });
            } else {
                store_.update(session.id, [&](const std::optional<Session>& current) -> std::optional<Session> {
                    if (current && current->process != session.process) return current;
                    return std::nullopt;
                });
            }
        } catch (const std::exception& e) {
            qCWarning(lcSessions, "removing ended session failed: %s", e.what());
        }
    }
}

// ---- Claude Code's settings ----

std::string SessionsModel::hookCommand() const
{
    const std::filesystem::path executable =
        deps_.hookExecutable
            ? *deps_.hookExecutable
            : std::filesystem::path(QCoreApplication::applicationDirPath().toStdString()) / "skeldrin-hook";
    return HookInstaller::command(executable);
}

void SessionsModel::refreshHookState()
{
    const auto file = deps_.claudeSettings.value_or(HookInstaller::settingsURL());
    HookInstaller::State state;
    try {
        state = HookInstaller::state(HookInstaller::readSettings(file), hookCommand());
    } catch (const std::exception& e) {
        qCWarning(lcSessions, "reading Claude settings failed: %s", e.what());
        state = HookInstaller::State::notInstalled;
    }
    if (state == hookState_) return;
    hookState_ = state;
    Q_EMIT hookStateChanged();
}

void SessionsModel::updateClaudeSettings(const std::function<Json(Json)>& change)
{
    const auto file = deps_.claudeSettings.value_or(HookInstaller::settingsURL());
    try {
        HookInstaller::writeSettings(change(HookInstaller::readSettings(file)), file);
    } catch (const std::exception& e) {
        showError(QStringLiteral("Couldn't update Claude Code settings"), e);
    }
    // Also after a failure: the file may have been changed by someone else meanwhile.
    refreshHookState();
}

void SessionsModel::connectClaudeCode()
{
    const std::string command = hookCommand();
    updateClaudeSettings([&](Json settings) { return HookInstaller::installing(command, std::move(settings)); });
}

void SessionsModel::disconnectClaudeCode()
{
    updateClaudeSettings([](Json settings) { return HookInstaller::removing(std::move(settings)); });
}

// ---- Headlines ----

void SessionsModel::setHeadlineError(std::optional<QString> error)
{
    if (error == headlineError_) return;
    headlineError_ = std::move(error);
    Q_EMIT headlineErrorChanged();
}

void SessionsModel::setHeadlinesEnabled(bool enabled)
{
    if (enabled == headlinesEnabled_) return;
    headlinesEnabled_ = enabled;
    deps_.settings->setValue(kHeadlinesKey, enabled);
    headlineFailures_.clear();
    setHeadlineError(std::nullopt);
    Q_EMIT headlinesEnabledChanged();
    if (enabled) checkForClaude(runningClaudes());
    writeHeadlines();
}

void SessionsModel::checkForClaude(const QStringList& running)
{
    const auto report = [this](std::optional<QString> found) {
        if (found) return;
        qCWarning(lcSessions, "Better headlines is on, but Claude Code wasn't found");
        setHeadlineError(Headliner::Failure{Headliner::Failure::Kind::claudeNotFound, {}}.description());
    };
    if (deps_.claudeLocator) {
        deps_.claudeLocator(running, this, report);
    } else if (deps_.headlineWriter) {
        Headliner::locateClaude(running, Headliner::installedPaths(), Headliner::userShell(), this, report);
    }
}

void SessionsModel::writeHeadlines()
{
    if (!headlinesEnabled_ || !deps_.headlineWriter) return;
    for (const Session& session : stored_) {
        if (headlinesInFlight_.size() >= 2) return;
        if (!session.lastPrompt) continue;
        const std::string& prompt = *session.lastPrompt;
        if (session.headlinePrompt == prompt) continue;
        if (session.headline && wordCount(prompt) < 4) continue; // a short follow-up keeps its headline
        if (headlinesInFlight_.count(session.id)) continue;
        if (const auto failed = headlineFailures_.find(session.id);
            failed != headlineFailures_.end() && failed->second == prompt)
            continue;

        headlinesInFlight_.insert(session.id);
        Headliner::Request request;
        request.project = q(text::lastPathComponent(session.origin.projectDir.value_or(session.cwd)));
        if (const auto title = transcriptTitles_.find(session.id); title != transcriptTitles_.end())
            request.title = q(title->second);
        else if (session.title)
            request.title = q(*session.title);
        if (session.headline) request.previous = q(*session.headline);
        request.prompt = q(prompt);

        const std::string id = session.id;
        deps_.headlineWriter(request, runningClaudes(), this, [this, id, prompt](Headliner::Outcome outcome) {
            std::optional<QString> failure;
            if (const auto* headline = std::get_if<QString>(&outcome)) {
                try {
                    const std::string text = headline->toStdString();
                    store_.update(id, [&](const std::optional<Session>& current) -> std::optional<Session> {
                        if (!current) return std::nullopt;
                        Session next = *current;
                        next.headline = text;
                        next.headlinePrompt = prompt;
                        return next;
                    });
                    setHeadlineError(std::nullopt);
                } catch (const std::exception& e) {
                    failure = QString::fromUtf8(e.what());
                }
            } else {
                failure = std::get<Headliner::Failure>(outcome).description();
            }
            if (failure) {
                qCWarning(lcSessions, "headline failed: %s", qUtf8Printable(*failure));
                headlineFailures_[id] = prompt;
                setHeadlineError(failure);
            }
            headlinesInFlight_.erase(id);
        });
    }
}

} // namespace skeldrin
