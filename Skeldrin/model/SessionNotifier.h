#pragma once
#include "Skeldrin/model/AppSettings.h"
#include "Skeldrin/model/Seams.h"
#include "Skeldrin/model/SessionList.h"
#include "Skeldrin/platform/Notifications.h"

#include <QObject>
#include <QTimer>
#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace skeldrin {

class SessionsModel;

// Which changes of the listed sessions deserve a desktop notification. Pure: fed one list after another.
class NotificationRules {
  public:
    // Above this many at once, the rest are summed up in one "and N more" notification: a
    // notification centre shows a handful at once, and ten separate sessions are still worth ten.
    static constexpr int cap = 10;
    // Changes of one session within this long after its first make one notification, of how the
    // session stands at its end: a wait answered at once, or flapping, does not pop up several.
    static constexpr std::chrono::seconds window{1};
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
    // The first list is what was already so: it never notifies. What a list changes is delivered by
    // the first call at or after its window; a kind switched off is withdrawn at once.
    Step next(const std::vector<ListedSession>& list, bool waitingOn, bool finishedOn,
              const std::function<std::string(const Session&)>& displayName, Date now);
    // When next should be called again to deliver what is held back.
    std::optional<Date> due() const;
    // The notification under key was closed by the user or the service.
    void forget(const std::string& key);
    bool isShown(const std::string& key) const { return delivered_.count(key) > 0; }

  private:
    std::optional<std::map<std::string, Status>> previous_;
    // Sessions that deserve a notification, shown or held back: the status it is about, and what it
    // says as the session stands now.
    std::map<std::string, Status> wanted_;
    std::map<std::string, Shown> content_;
    // Sessions with changes not yet delivered, and when the first of them came.
    std::map<std::string, Date> held_;
    std::set<std::string> delivered_;
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
                    Clock* clock = nullptr, QObject* parent = nullptr);

    // Reads the model and delivers what is due.
    void update();

  private:
    void open(const QString& key);

    SessionsModel& model_;
    AppSettings& settings_;
    Notifications& delivery_;
    SystemClock systemClock_;
    Clock& clock_;
    NotificationRules rules_;
    QTimer due_;
};

} // namespace skeldrin
