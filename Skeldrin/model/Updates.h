#pragma once
// Keeps the application current: a periodic version check, the download, the hand-over to the system's
// installer, and the relaunch into the installed copy.
#include <QObject>
#include <QString>
#include <QUrl>
#include <optional>

namespace skeldrin {

// The site's "version.json": {"latest": "1.4.2", "url": "https://…/Skeldrin.dmg", …}.
struct UpdateManifest {
    QString latest;
    QUrl url;
    // The Linux package of that version, when the site offers one (see Updates.cpp for the JSON shape).
    std::optional<QUrl> linuxPackage;

    bool operator==(const UpdateManifest&) const = default;
};

class Updates : public QObject {
    Q_OBJECT
public:
    explicit Updates(QObject* parent = nullptr);
    ~Updates() override;

    // The pending update; none when up to date.
    const std::optional<UpdateManifest>& required() const { return required_; }
    bool downloading() const { return downloading_; }
    bool awaitingInstall() const { return awaitingInstall_; }
    QString currentVersion() const;

    void start();
    void check();
    void install();

Q_SIGNALS:
    void requiredChanged();
    void downloadingChanged();
    void awaitingInstallChanged();

protected:
    std::optional<UpdateManifest> required_;
    bool downloading_ = false;
    bool awaitingInstall_ = false;
};

} // namespace skeldrin
