#pragma once
// How each platform fetches, opens and relaunches into an update.
#include "Skeldrin/model/Updates.h"

#include <QObject>
#include <QString>
#include <QUrl>
#include <functional>
#include <optional>

namespace skeldrin::platform {

// What to download for this platform; nothing means: open the manifest's page in the browser instead.
std::optional<QUrl> updatePackage(const UpdateManifest& manifest);
// The name the finished download is kept under (its extension tells the system how to open it).
QString updateFileName(const QUrl& package);
// A per-user folder for the download.
QString updateDownloadFolder();
// The copy an update replaces: "/Applications/Skeldrin.app" on macOS, this executable on Linux.
QString installedCopy();
// Hands a file or a page to the desktop (workspace on macOS, the desktop's URL handler on Linux).
bool openWithSystem(const QUrl& fileOrPage, QString* error);
// The installed copy's version; nothing when it cannot be read.
void readInstalledVersion(const QString& installedCopy, QObject* context,
                          std::function<void(std::optional<QString>)> done);
// Starts the installed copy as a new instance; calls back with an error text, or nothing on success.
void launchInstalledCopy(const QString& installedCopy, QObject* context,
                         std::function<void(std::optional<QString>)> done);

} // namespace skeldrin::platform
