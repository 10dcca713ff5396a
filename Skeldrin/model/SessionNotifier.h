#pragma once
#include "Skeldrin/model/AppSettings.h"
#include "Skeldrin/model/SessionList.h"
#include "Skeldrin/platform/Notifications.h"

#include <QObject>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace skeldrin {

class SessionsModel;

// Which changes of the listed sessions deserve a desktop notification. Pure: fed one list after another.
class NotificationRules {
  public:
    // Above this many in one change, the rest are summed up in one "and N more" notification: a
    // notification centre shows a handful at once, and ten separate sessions are still worth ten.
    static constexpr int cap = 10;
    static inline const std::string summaryKey = "skeldrin.more";

    struct Shown {
        std::string key;
        std::string title;
        std::string body;
        Notifications::Urgency urgency = Notifications::Urgency::normal;
        bool operator==(const Shown&) const = default;
    };
    struct Step {
        std::vector<Shown> show;
        std::vector<std::string> withdraw;
        bool operator==(const Step&) const = default;
    };
    // The first list is what was already so: it never notifies.
    Step next(const std::vector<ListedSession>& list, bool waitingOn, bool finishedOn,
              const std::function<std::string(const Session&)>& displayName);
    // The notification under key was closed by the user or the service.
    void forget(const std::string& key) { shown_.erase(key); }
    bool isShown(const std::string& key) const { return shown_.count(key) > 0; }

  private:
    std::optional<std::map<std::string, Status>> previous_;
    // Sessions with a notification showing, and the status it was about.
    std::map<std::string, Status> shown_;
};

// Watches the model and hands notifications to the desktop; a click on one jumps to its session.
class SessionNotifier : public QObject {
    Q_OBJECT
  public:
    static inline const QString waitingKey = QStringLiteral("notifications.waiting");
    static inline const QString finishedKey = QStringLiteral("notifications.finished");
    static inline const QString waitingLabel = QStringLiteral("Notify when a session needs you");
    static inline const QString finishedLabel = QStringLiteral("Notify when a session finishes");
    static constexpr bool waitingDefault = true;
    static constexpr bool finishedDefault = false;

    // Construct after model.start(): what the model holds then is taken as already known.
    SessionNotifier(SessionsModel& model, AppSettings& settings, Notifications& delivery,
                    QObject* parent = nullptr);

  private:
    void update();
    void open(const QString& key);

    SessionsModel& model_;
    AppSettings& settings_;
    Notifications& delivery_;
    NotificationRules rules_;
};

} // namespace skeldrin
