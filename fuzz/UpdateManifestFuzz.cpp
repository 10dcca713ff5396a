// The update site's manifest and version texts: a body decodes to a manifest with web addresses or
// throws the error the updater shows (nothing else escapes), and a manifest written out decodes the same.
// Versions: never older than themselves, never both older and newer, and one more piece is newer.
#include "fuzz/FuzzTarget.h"

#include "Skeldrin/model/UpdateManifest.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <stdexcept>

using namespace skeldrin;

SKELDRIN_FUZZ_TARGET(update_manifest)
{
    const QByteArray body(data.data(), static_cast<qsizetype>(data.size()));
    try {
        const UpdateManifest manifest = UpdateManifest::decode(body);
        SKELDRIN_FUZZ_CHECK(isWebUrl(manifest.url) &&
                            (!manifest.linuxPackage || isWebUrl(*manifest.linuxPackage)));
        // Addresses compare as the bytes a request sends: QUrl keeps a "#" inside a fragment apart from
        // its encoded form, which is the same address.
        const auto sent = [](const QUrl& url) { return url.toString(QUrl::FullyEncoded); };
        QJsonObject written{{QStringLiteral("latest"), manifest.latest},
                            {QStringLiteral("url"), sent(manifest.url)}};
        if (manifest.linuxPackage)
            written.insert(QStringLiteral("linuxPackage"), sent(*manifest.linuxPackage));
        const UpdateManifest again = UpdateManifest::decode(QJsonDocument(written).toJson());
        SKELDRIN_FUZZ_CHECK(again.latest == manifest.latest && sent(again.url) == sent(manifest.url));
        SKELDRIN_FUZZ_CHECK(again.linuxPackage.has_value() == manifest.linuxPackage.has_value());
        if (again.linuxPackage)
            SKELDRIN_FUZZ_CHECK(sent(*again.linuxPackage) == sent(*manifest.linuxPackage));
    } catch (const std::runtime_error&) {
    }

    const auto nul = data.find('\0');
    const QString a =
        QString::fromUtf8(data.substr(0, nul).data(), static_cast<qsizetype>(data.substr(0, nul).size()));
    const QString b =
        nul == std::string_view::npos
            ? QString()
            : QString::fromUtf8(data.substr(nul + 1).data(), static_cast<qsizetype>(data.size() - nul - 1));
    SKELDRIN_FUZZ_CHECK(!AppVersion::isOlder(a, a));
    SKELDRIN_FUZZ_CHECK(!(AppVersion::isOlder(a, b) && AppVersion::isOlder(b, a)));
    SKELDRIN_FUZZ_CHECK(AppVersion::isOlder(a, a + QStringLiteral(".1")));
}
