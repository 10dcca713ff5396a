#pragma once
#include <QObject>
#include <QSettings>
#include <QVariant>
#include <memory>

namespace skeldrin {

// The app's user settings ("headlines.enabled", "widget.visible", ...). On macOS QSettings is the
// app's user defaults. Every write made through this object is announced with changed(key).
class AppSettings : public QObject {
    Q_OBJECT
public:
    // The user's settings of this application.
    explicit AppSettings(QObject* parent = nullptr);
    // Settings kept in the given INI file instead (tests, and running without touching the user's).
    explicit AppSettings(const QString& iniFile, QObject* parent = nullptr);

    bool boolValue(const QString& key, bool defaultValue) const;
    QVariant value(const QString& key, const QVariant& defaultValue = {}) const;
    void setValue(const QString& key, const QVariant& value);
    bool contains(const QString& key) const;
    // Forgets the value under the key; announced like a write.
    void remove(const QString& key);

Q_SIGNALS:
    void changed(const QString& key);

private:
    std::unique_ptr<QSettings> settings_;
};

} // namespace skeldrin
