#pragma once

#include <QHostAddress>
#include <QObject>
#include <QSettings>
#include <QString>
#include <QVariant>

namespace config {

// Typed access to the product settings. Every read goes to the settings object at the
// moment of the call, so values written through the loader are seen at once.
class ConfigLoader : public QObject
{
    Q_OBJECT

public:
    // Opens its own settings on the file name and format of the given object, which is
    // not kept (a registry key that only the 32-bit view holds is read there). In INI format
    // every key containing "/#" is removed; the removal reaches the file at the next sync or
    // when the loader is destroyed.
    explicit ConfigLoader(const QSettings &settings, QObject *parent = nullptr);
    ~ConfigLoader() override;

    virtual void sync();

    QVariant readValue(const QString &key) const;
    quint16 readPort(const QString &key) const;
    QHostAddress readAddress(const QString &key) const;
    bool readBool(const QString &key, bool defaultValue) const;

protected:
    QSettings &settings() { return m_settings; }
    const QSettings &settings() const { return m_settings; }
    // The stored value, or the default; a REG_EXPAND_SZ registry value with its variables expanded.
    QVariant value(const QString &key, const QVariant &defaultValue = QVariant()) const;

private:
    void removeCommentedKeys();

    // The settings report a registry view as the native format.
    const QSettings::Format m_format;
    QSettings m_settings;
};

} // namespace config
