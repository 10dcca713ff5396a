#include "Skeldrin/model/AppSettings.h"

namespace skeldrin {

AppSettings::AppSettings(QObject* parent)
    : QObject(parent)
    , settings_(std::make_unique<QSettings>())
{
}

AppSettings::AppSettings(const QString& iniFile, QObject* parent)
    : QObject(parent)
    , settings_(std::make_unique<QSettings>(iniFile, QSettings::IniFormat))
{
}

bool AppSettings::boolValue(const QString& key, bool defaultValue) const
{
    return settings_->value(key, defaultValue).toBool();
}

QVariant AppSettings::value(const QString& key, const QVariant& defaultValue) const
{
    return settings_->value(key, defaultValue);
}

void AppSettings::setValue(const QString& key, const QVariant& value)
{
    settings_->setValue(key, value);
    settings_->sync();
    Q_EMIT changed(key);
}

bool AppSettings::contains(const QString& key) const { return settings_->contains(key); }

void AppSettings::remove(const QString& key)
{
    settings_->remove(key);
    settings_->sync();
    Q_EMIT changed(key);
}

} // namespace skeldrin
