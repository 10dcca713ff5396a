#include "Skeldrin/model/SessionNotifier.h"

#include "Skeldrin/model/SessionsModel.h"

#include <QLoggingCategory>
#include <algorithm>

Q_LOGGING_CATEGORY(lcNotifier, "app.skeldrin.notifier")

namespace skeldrin {

namespace {

bool isWaiting(Status s)
{
    return s == Status::waiting || s == Status::multiStepWaiting;
}

// A ready row still waiting on its runs is not finished yet.
Status effectiveStatus(const ListedSession& entry)
{
    return entry.shade.kind == Shade::Kind::status ? entry.shade.status : Status::running;
}

// Only sessions the user started and sees as their own rows notify.
bool notifies(const ListedSession& entry)
{
    return entry.role == ListedSession::Role::main && !entry.session.isBackground() &&
           !entry.session.origin.isHeadless();
}

std::string withApp(std::string text, const Session& session)
{
    const std::string app = session.origin.appName();
    return app.empty() ? text : text + " · " + app;
}

} // namespace

NotificationRules::Step NotificationRules::next(const std::vector<ListedSession>& list, bool waitingOn,
                                                bool finishedOn,
                                                const std::function<std::string(const Session&)>& displayName)
{
    std::map<std::string, Status> now;
    for (const auto& entry : list)
        now[entry.id()] = effectiveStatus(entry);
    Step step;
    if (!previous_) {
        previous_ = std::move(now);
        return step;
    }

    for (const auto& entry : list) {
        const Status status = now[entry.id()];
        if (!notifies(entry)) continue;
        // A session first seen now was nothing before: it can start out waiting, not finished.
        const auto before = previous_->find(entry.id());
        const bool known = before != previous_->end();
        const Status was = known ? before->second : Status::running;
        const Session& s = entry.session;
        if (waitingOn && isWaiting(status) && !isWaiting(was)) {
            const std::string what = s.waitingFor.value_or(std::string(label(status)));
            step.show.push_back(
                {entry.id(), displayName(s), withApp(what, s), Notifications::Urgency::normal});
            shown_[entry.id()] = status;
        } else if (finishedOn && status == Status::ready && known && was == Status::running) {
            std::string what = "Finished";
            if (s.lastPrompt && !s.lastPrompt->empty()) what += ": " + *s.lastPrompt;
            step.show.push_back({entry.id(), displayName(s), withApp(what, s), Notifications::Urgency::low});
            shown_[entry.id()] = status;
        }
    }

    // What was shown is withdrawn once it is no longer so: answered, running again, or gone.
    for (auto it = shown_.begin(); it != shown_.end();) {
        const auto current = now.find(it->first);
        const bool stillSo = current != now.end() && (current->second == it->second ||
                                                      (isWaiting(current->second) && isWaiting(it->second)));
        if (stillSo) {
            ++it;
            continue;
        }
        step.withdraw.push_back(it->first);
        it = shown_.erase(it);
    }

    if (static_cast<int>(step.show.size()) > cap) {
        const auto more = static_cast<int>(step.show.size()) - (cap - 1);
        for (auto it = step.show.begin() + (cap - 1); it != step.show.end(); ++it)
            shown_.erase(it->key);
        step.show.resize(cap - 1);
        step.show.push_back({summaryKey, "Skeldrin", "and " + std::to_string(more) + " more sessions",
                             Notifications::Urgency::normal});
    }
    previous_ = std::move(now);
    return step;
}

SessionNotifier::SessionNotifier(SessionsModel& model, AppSettings& settings, Notifications& delivery,
                                 QObject* parent)
    : QObject(parent)
    , model_(model)
    , settings_(settings)
    , delivery_(delivery)
{
    update();
    connect(&model_, &SessionsModel::storedChanged, this, &SessionNotifier::update);
    connect(&model_, &SessionsModel::transcriptTitlesChanged, this, &SessionNotifier::update);
    connect(&delivery_, &Notifications::activated, this, &SessionNotifier::open);
    connect(&delivery_, &Notifications::closed, this,
            [this](const QString& key) { rules_.forget(key.toStdString()); });
    connect(&settings_, &AppSettings::changed, this, [this](const QString& key) {
        if ((key == waitingKey || key == finishedKey) && settings_.boolValue(key, false))
            delivery_.requestAuthorisation();
    });
    if (settings_.boolValue(waitingKey, waitingDefault) || settings_.boolValue(finishedKey, finishedDefault))
        delivery_.requestAuthorisation();
}

void SessionNotifier::update()
{
    const auto step = rules_.next(model_.list(), settings_.boolValue(waitingKey, waitingDefault),
                                  settings_.boolValue(finishedKey, finishedDefault),
                                  [this](const Session& s) { return model_.displayName(s); });
    for (const auto& key : step.withdraw)
        delivery_.withdraw(QString::fromStdString(key));
    for (const auto& shown : step.show)
        delivery_.notify(QString::fromStdString(shown.key), QString::fromStdString(shown.title),
                         QString::fromStdString(shown.body), shown.urgency);
}

void SessionNotifier::open(const QString& key)
{
    const std::string id = key.toStdString();
    for (const auto& entry : model_.list()) {
        if (entry.id() != id) continue;
        model_.jump(entry);
        return;
    }
    qCInfo(lcNotifier, "clicked notification %s has no session any more", qUtf8Printable(key));
}

} // namespace skeldrin
