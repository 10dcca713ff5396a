// The desktop app as a whole process: from exec to its tray item registered with a panel (a private
// D-Bus bus with a minimal StatusNotifierWatcher, and an Xvfb), with 200 sessions in the store; then,
// with 20 sessions and none waiting, its wake-ups and resident memory while idle.
//   app_bench [runs] [idle seconds]
#include "TrackerCore/SessionStore.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <algorithm>
#include <cstdio>
#include <vector>

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

void fillStore(const QString& home, int count)
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

    fillStore(home.path(), 200);
    std::vector<double> times;
    for (int run = 0; run < runs; ++run) {
        const int before = watcher.registrations;
        QProcess process;
        QElapsedTimer clock;
        clock.start();
        launch(process);
        while (watcher.registrations == before && clock.elapsed() < 20000)
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 5);
        times.push_back(clock.nsecsElapsed() / 1e6);
        stop(process);
    }
    std::sort(times.begin(), times.end());
    std::printf("exec -> tray item registered, 200 sessions: median %.0f ms (min %.0f, max %.0f, %d runs)\n",
                times[times.size() / 2], times.front(), times.back(), runs);

    fillStore(home.path(), 20);
    QProcess idle;
    launch(idle);
    serveFor(3000); // start-up settles
    const qint64 pid = idle.processId();
    const long switches =
        statusField(pid, "voluntary_ctxt_switches:") + statusField(pid, "nonvoluntary_ctxt_switches:");
    serveFor(idleSeconds * 1000);
    const long after =
        statusField(pid, "voluntary_ctxt_switches:") + statusField(pid, "nonvoluntary_ctxt_switches:");
    std::printf("idle, 20 sessions: %.2f wake-ups a second over %d s; resident %ld kB (peak %ld kB)\n",
                double(after - switches) / idleSeconds, idleSeconds, statusField(pid, "VmRSS:"),
                statusField(pid, "VmHWM:"));
    stop(idle);
    stop(xserver);
    stop(bus);
    return 0;
}

#include "app_bench.moc"
