#pragma once
// What the update site says is the latest version, and how versions compare: text only (QtCore), so that
// it can be checked on its own.
#include <QByteArray>
#include <QString>
#include <QUrl>
#include <optional>

namespace skeldrin {

// The site's "version.json":
//   {"latest": "1.4.2", "url": "https://…/Skeldrin.dmg", "linuxPackage":
//   "https://…/skeldrin_1.4.2_amd64.deb"}
// "latest" and "url" are required; "linuxPackage" is optional (a package the desktop's installer opens).
// Unknown keys are ignored.
struct UpdateManifest {
    QString latest;
    QUrl url;
    std::optional<QUrl> linuxPackage;

    bool operator==(const UpdateManifest&) const = default;

    // Throws std::runtime_error (a sentence) for a body that is not such an object, lacks a required key, has
    // a key of the wrong type, or a URL that is not http(s).
    static UpdateManifest decode(const QByteArray& json);
};

namespace AppVersion {
// Dotted decimal comparison; empty pieces are dropped, a piece that is not a number (or does not fit in 64
// bits) counts as 0, missing pieces count as 0. isOlder("1.2", "1.10") is true; "1.2" and "1.2.0" are equal.
bool isOlder(const QString& a, const QString& than);
} // namespace AppVersion

// A valid http or https address with a host.
bool isWebUrl(const QUrl& url);

} // namespace skeldrin
