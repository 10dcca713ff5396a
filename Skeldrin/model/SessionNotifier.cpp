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

NotificationRules::Shown describe(const ListedSession& entry, Status about,
                                  const std::function<std::string(const Session&)>& displayName)
{
    const Session& s = entry.session;
    if (isWaiting(about)) {
        const std::string what = s.waitingFor.value_or(std::string(label(effectiveStatus(entry))));
        return {entry.id(), displayName(s), withApp(what, s), Notifications::Urgency::normal};
    }
    std::string what = "Finished";
    if (s.lastPrompt && !s.lastPrompt->empty()) what += ": " + *s.lastPrompt;
    return {entry.id(), displayName(s), withApp(what, s), Notifications::Urgency::low};
}

} // namespace

NotificationRules::Step NotificationRules::next(const std::vector<ListedSession>& list, bool waitingOn,
                                                bool finishedOn,
                                                const std::function<std::string(const Session&)>& displayName,
                                                Date now)
{
    std::map<std::string, Status> statuses;
    for (const auto& entry : list)
        statuses[entry.id()] = effectiveStatus(entry);
    Step step;
    if (!previous_) {
        previous_ = std::move(statuses);
        return step;
    }
    const auto hold = [&](const std::string& id) { held_.emplace(id, now); };

    for (const auto& entry : list) {
        const Status status = statuses[entry.id()];
        if (!notifies(entry)) continue;
        // A session first seen now was nothing before: it can start out waiting, not finished.
        const auto before = previous_->find(entry.id());
        const bool known = before != previous_->end();
        const Status was = known ? before->second : Status::running;
        const bool startsWaiting = waitingOn && isWaiting(status) && !isWaiting(was);
        const bool finishes = finishedOn && status == Status::ready && known && was == Status::running;
        if (startsWaiting || finishes) {
            wanted_[entry.id()] = status;
            hold(entry.id());
        }
        if (const auto it = wanted_.find(entry.id()); it != wanted_.end())
            content_[entry.id()] = describe(entry, it->second, displayName);
    }

    // What is no longer so is withdrawn: answered, running again, or gone; a kind switched off, at once.
    for (auto it = wanted_.begin(); it != wanted_.end();) {
        const auto current = statuses.find(it->first);
        const bool stillSo =
            current != statuses.end() &&
            (current->second == it->second || (isWaiting(current->second) && isWaiting(it->second)));
        const bool kindOn = isWaiting(it->second) ? waitingOn : finishedOn;
        if (stillSo && kindOn) {
            ++it;
            continue;
        }
        const std::string id = it->first;
        content_.erase(id);
        it = wanted_.erase(it);
        if (kindOn) {
            hold(id);
        } else {
            held_.erase(id);
            if (delivered_.erase(id)) step.withdraw.push_back(id);
        }
    }

    for (auto it = held_.begin(); it != held_.end();) {
        if (now < it->second + window) {
            ++it;
            continue;
        }
        const std::string id = it->first;
        it = held_.erase(it);
        if (wanted_.count(id)) {
            step.show.push_back(content_[id]);
            delivered_.insert(id);
        } else if (delivered_.erase(id)) {
            step.withdraw.push_back(id);
        }
    }

    if (static_cast<int>(step.show.size()) > cap) {
        const auto more = static_cast<int>(step.show.size()) - (cap - 1);
        for (auto it = step.show.begin() + (cap - 1); it != step.show.end(); ++it)
            forget(it->key);
        step.show.resize(cap - 1);
        step.show.push_back({summaryKey, "Skeldrin", "and " + std::to_string(more) + " more sessions",
                             Notifications::Urgency::normal});
    }
    previous_ = std::move(statuses);
    return step;
}

std::optional<Date> NotificationRules::due() const
{
    std::optional<Date> first;
    for (const auto& [id, since] : held_)
        if (!first || since < *first) first = since;
    if (!first) return std::nullopt;
    return *first + window;
}

void NotificationRules::forget(const std::string& key)
{
    wanted_.erase(key);
    content_.erase(key);
    held_.erase(key);
    delivered_.erase(key);
}

SessionNotifier::SessionNotifier(SessionsModel& model, AppSettings& settings, Notifications& delivery,
                                 Clock* clock, QObject* parent)
    : QObject(parent)
    , model_(model)
    , settings_(settings)
    , delivery_(delivery)
    , clock_(clock ? *clock : systemClock_)
{
    due_.setSingleShot(true);
    connect(&due_, &QTimer::timeout, this, &SessionNotifier::update);
    update();
    connect(&model_, &SessionsModel::storedChanged, this, &SessionNotifier::update);
    connect(&model_, &SessionsModel::transcriptTitlesChanged, this, &SessionNotifier::update);
    connect(&delivery_, &Notifications::activated, this, &SessionNotifier::open);
    connect(&delivery_, &Notifications::closed, this,
            [this](const QString& key) { rules_.forget(key.toStdString()); });
    connect(&settings_, &AppSettings::changed, this, [this](const QString& key) {
        if (key != waitingKey && key != finishedKey) return;
        if (settings_.boolValue(key, false)) delivery_.requestAuthorisation();
        update();
    });
    if (settings_.boolValue(waitingKey, waitingDefault) || settings_.boolValue(finishedKey, finishedDefault))
        delivery_.requestAuthorisation();
}

void SessionNotifier::update()
{
    const Date now = clock_.now();
    const auto step = rules_.next(
        model_.list(), settings_.boolValue(waitingKey, waitingDefault),
        settings_.boolValue(finishedKey, finishedDefault),
        [this](const Session& s) { return model_.displayName(s); }, now);
    for (const auto& key : step.withdraw)
        delivery_.withdraw(QString::fromStdString(key));
    for (const auto& shown : step.show)
        delivery_.notify(QString::fromStdString(shown.key), QString::fromStdString(shown.title),
                         QString::fromStdString(shown.body), shown.urgency);
    if (const auto due = rules_.due())
        due_.start(static_cast<int>(
            std::max<std::int64_t>(0, std::chrono::ceil<std::chrono::milliseconds>(*due - now).count())));
    else
        due_.stop();
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
