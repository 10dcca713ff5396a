// The widget's cost for one model change with 50 listed sessions: a new layout and a full paint into an
// image. Prints the median and the worst of 200 rounds, and the process's resident memory.
#include "Skeldrin/model/AppSettings.h"
#include "Skeldrin/model/SessionsModel.h"
#include "Skeldrin/model/Updates.h"
#include "Skeldrin/ui/WidgetView.h"
#include "TrackerCore/SessionStore.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QImage>
#include <QPainter>
#include <QTemporaryDir>
#include <algorithm>
#include <chrono>
#include <cstdio>

using namespace skeldrin;

int main(int argc, char** argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    QTemporaryDir temp;
    SessionStore store(std::filesystem::path(temp.path().toStdString()) / "sessions");
    const auto now =
        std::chrono::time_point_cast<std::chrono::microseconds>(std::chrono::system_clock::now());
    for (int i = 0; i < 50; ++i) {
        const std::string id = "session-" + std::to_string(i);
        Session s(id, "claude", "/work/" + id, {}, std::nullopt, now - std::chrono::minutes(i));
        s.phase = i % 3 ? Phase::idle : Phase::running;
        store.update(id, [&](const auto&) { return std::optional(s); });
    }
    AppSettings settings(temp.filePath("settings.ini"));
    SessionsModel::Dependencies deps;
    deps.settings = &settings;
    deps.cycleMilliseconds = 3600 * 1000;
    SessionsModel model(store, std::move(deps));
    model.reload();
    Updates updates(Updates::Dependencies{});
    WidgetHover hover;
    WidgetView view(model, updates, settings, hover, {});
    std::vector<double> ms;
    for (int round = 0; round < 200; ++round) {
        QElapsedTimer timer;
        timer.start();
        view.relayout();
        QImage image(view.sizeHint(), QImage::Format_ARGB32_Premultiplied);
        image.fill(Qt::transparent);
        view.render(&image);
        ms.push_back(double(timer.nsecsElapsed()) / 1e6);
    }
    std::sort(ms.begin(), ms.end());
    long rssKb = 0;
    QFile status(QStringLiteral("/proc/self/status"));
    if (status.open(QIODevice::ReadOnly))
        for (const QByteArray& line : status.readAll().split('\n'))
            if (line.startsWith("VmRSS:")) rssKb = line.mid(6).trimmed().split(' ').front().toLong();
    std::printf("rows %zu, layout + paint: median %.2f ms, worst %.2f ms; resident %ld KB\n",
                view.rows().size(), ms[ms.size() / 2], ms.back(), rssKb);
    return 0;
}
