#include "Skeldrin/model/UpdateManifest.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <QList>

#include <algorithm>
#include <stdexcept>

namespace skeldrin {

namespace {

std::runtime_error manifestError(const QString& sentence)
{
    return std::runtime_error(QStringLiteral("The update manifest %1.").arg(sentence).toStdString());
}

QUrl webUrl(const QJsonObject& object, const QString& key)
{
    const QJsonValue value = object.value(key);
    if (value.isUndefined()) throw manifestError(QStringLiteral("has no \"%1\"").arg(key));
    if (!value.isString()) throw manifestError(QStringLiteral("has a \"%1\" that is not a text").arg(key));
    const QUrl url(value.toString(), QUrl::StrictMode);
    if (!isWebUrl(url))
        throw manifestError(QStringLiteral("has a \"%1\" that is not a web address").arg(key));
    return url;
}

// Like Swift's Int(_:): an optional sign, then ASCII digits that fit in 64 bits; anything else counts as 0.
qint64 versionPiece(QStringView piece)
{
    const qsizetype digitsFrom = piece.startsWith(u'+') || piece.startsWith(u'-') ? 1 : 0;
    if (digitsFrom == piece.size()) return 0;
    for (qsizetype i = digitsFrom; i < piece.size(); ++i)
        if (piece[i] < u'0' || piece[i] > u'9') return 0;
    bool ok = false;
    const qint64 value = piece.toLongLong(&ok, 10);
    return ok ? value : 0;
}

QList<qint64> versionPieces(const QString& text)
{
    QList<qint64> pieces;
    for (const QStringView piece : QStringView(text).split(u'.', Qt::SkipEmptyParts))
        pieces.append(versionPiece(piece));
    return pieces;
}

} // namespace

bool isWebUrl(const QUrl& url)
{
    return url.isValid() &&
           (url.scheme() == QLatin1String("https") || url.scheme() == QLatin1String("http")) &&
           !url.host().isEmpty();
}

UpdateManifest UpdateManifest::decode(const QByteArray& json)
{
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::NoError)
        throw manifestError(QStringLiteral("is not JSON (%1)").arg(error.errorString()));
    if (!document.isObject()) throw manifestError(QStringLiteral("is not a JSON object"));
    const QJsonObject object = document.object();

    UpdateManifest manifest;
    const QJsonValue latest = object.value(QLatin1String("latest"));
    if (latest.isUndefined()) throw manifestError(QStringLiteral("has no \"latest\""));
    if (!latest.isString()) throw manifestError(QStringLiteral("has a \"latest\" that is not a text"));
    manifest.latest = latest.toString();
    manifest.url = webUrl(object, QStringLiteral("url"));
    if (const QJsonValue package = object.value(QLatin1String("linuxPackage"));
        !package.isUndefined() && !package.isNull())
        manifest.linuxPackage = webUrl(object, QStringLiteral("linuxPackage"));
    return manifest;
}

bool AppVersion::isOlder(const QString& a, const QString& than)
{
    const QList<qint64> left = versionPieces(a);
    const QList<qint64> right = versionPieces(than);
    for (qsizetype i = 0; i < std::max(left.size(), right.size()); ++i) {
        const qint64 l = i < left.size() ? left[i] : 0;
        const qint64 r = i < right.size() ? right[i] : 0;
        if (l != r) return l < r;
    }
    return false;
}

} // namespace skeldrin
