// The desktop app as a whole process: from exec to its tray item registered with a panel (a private
// D-Bus bus with a minimal StatusNotifierWatcher) and its widget mapped on an Xvfb, with 200 sessions in
// the store; then, with 20 sessions, its wake-ups, CPU and resident memory while idle: none waiting (nothing
// moves), then one waiting (its ping ring animates).
//   app_bench [runs] [idle seconds] [sessions at start-up, 200]
#include "TrackerCore/SessionStore.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QSocketNotifier>
#include <QTemporaryDir>
#include <algorithm>
#include <cstdio>
#include <unistd.h>
#include <vector>
#include <xcb/xcb.h>

namespace {

class Watcher : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
    Q_PROPERTY(bool IsStatusNotifierHostRegistered READ hostRegistered)
    Q_PROPERTY(int ProtocolVersion READ protocolVersion)
  public:
    bool hostRegistered() const { return true; }
    int protocolVersion() const { return 0; }
    int registrations = 0;
  public Q_SLOTS:
    void RegisterStatusNotifierItem(const QString&) { ++registrations; }
    void RegisterStatusNotifierHost(const QString&) {}
};

void fillStore(const QString& home, int count, int waiting = 0)
{
    const auto dir = std::filesystem::path(home.toStdString()) / "data/Skeldrin/sessions";
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    skeldrin::SessionStore store(dir);
    const auto now =
        std::chrono::time_point_cast<std::chrono::microseconds>(std::chrono::system_clock::now());
    for (int i = 0; i < count; ++i) {
        const std::string id = "bench-" + std::to_string(i);
        skeldrin::Session s(id, "claude", "/src/project-" + std::to_string(i), {}, std::nullopt, now);
        s.lastPrompt = "Refactor the parser and keep the tests green";
        if (i < waiting) s.pendingApprovals = 1;
        store.update(id, [&](const auto&) { return std::optional(s); });
    }
}

// "key:  value kB" lines of /proc/<pid>/status.
long statusField(qint64 pid, const char* key)
{
    QFile file(QStringLiteral("/proc/%1/status").arg(pid));
    if (!file.open(QIODevice::ReadOnly)) return -1;
    for (const QByteArray& line : file.readAll().split('\n'))
        if (line.startsWith(key)) return line.mid(int(qstrlen(key))).trimmed().split(' ').value(0).toLong();
    return -1;
}

// Voluntary context switches of every thread of the process: each one is the thread going to sleep, so
// one wake-up (preemptions by other processes are not counted).
long wakeUps(qint64 pid)
{
    long total = 0;
    const QString tasks = QStringLiteral("/proc/%1/task").arg(pid);
    for (const QString& task : QDir(tasks).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile file(tasks + QLatin1Char('/') + task + QStringLiteral("/status"));
        if (!file.open(QIODevice::ReadOnly)) continue;
        for (const QByteArray& line : file.readAll().split('\n'))
            if (line.startsWith("voluntary_ctxt_switches:"))
                total += line.mid(line.indexOf(':') + 1).trimmed().toLong();
    }
    return total;
}

// User and system CPU time of the process so far, in seconds.
double cpuSeconds(qint64 pid)
{
    QFile file(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!file.open(QIODevice::ReadOnly)) return -1;
    const QByteArray text = file.readAll();
    // Fields after the command name, which is in parentheses and may hold spaces.
    const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
    return double(fields.value(11).toLong() + fields.value(12).toLong()) / double(sysconf(_SC_CLK_TCK));
}

// Sees top-level windows being mapped on the X server, and tells whether one was titled "Skeldrin".
class MapWatch {
  public:
    explicit MapWatch(const QString& display)
        : connection_(xcb_connect(display.toLocal8Bit().constData(), nullptr))
    {
        if (xcb_connection_has_error(connection_)) return;
        const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(connection_)).data->root;
        const uint32_t mask = XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY;
        xcb_change_window_attributes(connection_, root, XCB_CW_EVENT_MASK, &mask);
        xcb_flush(connection_);
        // Wakes the bench's event loop as soon as the server reports something.
        notifier_ =
            std::make_unique<QSocketNotifier>(xcb_get_file_descriptor(connection_), QSocketNotifier::Read);
        QObject::connect(notifier_.get(), &QSocketNotifier::activated, [this] { drain(); });
    }
    ~MapWatch() { xcb_disconnect(connection_); }
    bool ok() const { return !xcb_connection_has_error(connection_); }
    int widgetsMapped() const { return mapped_; }

  private:
    void drain()
    {
        while (xcb_generic_event_t* event = xcb_poll_for_event(connection_)) {
            if ((event->response_type & 0x7f) == XCB_MAP_NOTIFY &&
                title(reinterpret_cast<xcb_map_notify_event_t*>(event)->window) == "Skeldrin")
                ++mapped_;
            free(event);
        }
    }
    QByteArray title(xcb_window_t window)
    {
        xcb_get_property_reply_t* reply = xcb_get_property_reply(
            connection_,
            xcb_get_property(connection_, 0, window, XCB_ATOM_WM_NAME, XCB_GET_PROPERTY_TYPE_ANY, 0, 64),
            nullptr);
        if (!reply) return {};
        const QByteArray name(static_cast<const char*>(xcb_get_property_value(reply)),
                              xcb_get_property_value_length(reply));
        free(reply);
        return name;
    }
    xcb_connection_t* connection_;
    std::unique_ptr<QSocketNotifier> notifier_;
    int mapped_ = 0;
};

// The panel answers the app's calls while the bench waits.
void serveFor(int milliseconds)
{
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < milliseconds)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const int runs = argc > 1 ? std::atoi(argv[1]) : 7;
    const int idleSeconds = argc > 2 ? std::atoi(argv[2]) : 30;
    const int startSessions = argc > 3 ? std::atoi(argv[3]) : 200;
    QTemporaryDir home;

    QProcess bus, xserver;
    bus.start(QStringLiteral("dbus-daemon"), {"--session", "--nofork", "--print-address"});
    xserver.start(QStringLiteral("Xvfb"),
                  {"-displayfd", "1", "-screen", "0", "1280x800x24", "-nolisten", "tcp"});
    if (!bus.waitForReadyRead(10000) || !xserver.waitForReadyRead(20000)) {
        std::fprintf(stderr, "app_bench needs dbus-daemon and Xvfb\n");
        return 1;
    }
    const QString address = QString::fromUtf8(bus.readLine()).trimmed();
    const QString display = QLatin1Char(':') + QString::fromUtf8(xserver.readLine()).trimmed();
    QDBusConnection panel = QDBusConnection::connectToBus(address, QStringLiteral("panel"));
    Watcher watcher;
    panel.registerObject(QStringLiteral("/StatusNotifierWatcher"), &watcher,
                         QDBusConnection::ExportAllContents);
    panel.registerService(QStringLiteral("org.kde.StatusNotifierWatcher"));

    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("HOME", home.path());
    env.insert("XDG_DATA_HOME", home.filePath("data"));
    env.insert("XDG_CONFIG_HOME", home.filePath("config"));
    env.insert("XDG_RUNTIME_DIR", home.filePath("run"));
    env.insert("DISPLAY", display);
    env.insert("DBUS_SESSION_BUS_ADDRESS", address);
    env.insert("SKELDRIN_UPDATE_URL", QString()); // no update check
    env.remove("QT_QPA_PLATFORM");
    env.remove("WAYLAND_DISPLAY");
    QDir().mkpath(home.filePath("run"));
    QFile::setPermissions(home.filePath("run"),
                          QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);

    auto launch = [&](QProcess& process) {
        process.setProcessEnvironment(env);
        process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process.start(QStringLiteral(SKELDRIN_BIN_DIR "/skeldrin"), {});
    };
    auto stop = [](QProcess& process) {
        process.terminate();
        if (!process.waitForFinished(5000)) process.kill();
        process.waitForFinished();
    };

    MapWatch windows(display);
    if (!windows.ok()) {
        std::fprintf(stderr, "app_bench cannot connect to the Xvfb at %s\n", qPrintable(display));
        return 1;
    }
    fillStore(home.path(), startSessions);
    std::vector<double> trayTimes, widgetTimes, both;
    for (int run = 0; run < runs; ++run) {
        const int registered = watcher.registrations, mapped = windows.widgetsMapped();
        double tray = -1, widget = -1;
        QProcess process;
        QElapsedTimer clock;
        clock.start();
        launch(process);
        while ((tray < 0 || widget < 0) && clock.elapsed() < 20000) {
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 5);
            if (tray < 0 && watcher.registrations > registered) tray = clock.nsecsElapsed() / 1e6;
            if (widget < 0 && windows.widgetsMapped() > mapped) widget = clock.nsecsElapsed() / 1e6;
        }
        trayTimes.push_back(tray);
        widgetTimes.push_back(widget);
        both.push_back(std::max(tray, widget));
        stop(process);
    }
    const auto median = [](std::vector<double> v) {
        std::sort(v.begin(), v.end());
        return v[v.size() / 2];
    };
    std::sort(both.begin(), both.end());
    std::printf(
        "exec -> tray item registered and widget shown, %d sessions: median %.0f ms (min %.0f, max %.0f, "
        "%d runs); tray item alone %.0f ms, widget alone %.0f ms (medians)\n",
        startSessions, median(both), both.front(), both.back(), runs, median(trayTimes), median(widgetTimes));

    // Idle: wake-ups of all threads, CPU and memory over the idle period, once with nothing moving and once
    // with one session waiting.
    for (const int waiting : {0, 1}) {
        fillStore(home.path(), 20, waiting);
        QProcess idle;
        launch(idle);
        serveFor(3000); // start-up settles
        const qint64 pid = idle.processId();
        const long mainBefore = statusField(pid, "voluntary_ctxt_switches:");
        const long allBefore = wakeUps(pid);
        const double cpuBefore = cpuSeconds(pid);
        serveFor(idleSeconds * 1000);
        const long mainAfter = statusField(pid, "voluntary_ctxt_switches:");
        std::printf(
            "idle, 20 sessions, %d waiting: wake-ups a second over %d s: %.2f main thread, %.2f all threads; "
            "CPU %.2f %% of one core; resident %ld kB (peak %ld kB)\n",
            waiting, idleSeconds, double(mainAfter - mainBefore) / idleSeconds,
            double(wakeUps(pid) - allBefore) / idleSeconds, 100 * (cpuSeconds(pid) - cpuBefore) / idleSeconds,
            statusField(pid, "VmRSS:"), statusField(pid, "VmHWM:"));
        stop(idle);
    }
    stop(xserver);
    stop(bus);
    return 0;
}

#include "app_bench.moc"
