#include "core/InformationFile.h"

#include "core/PostgresException.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>

namespace core {

InformationFile::InformationFile(const Paths &paths, const PostgresLogRelay &relay)
    : m_paths(paths)
    , m_relay(relay)
{ }

void InformationFile::prepareKey()
{
    if (!m_cipher.loadOrCreateKeyFile(m_paths.key))
        m_relay.log(QStringLiteral("Could not open file for write"), m_paths.key, PostgresLogLevel::Error);
    m_keyReady = true;
}

QString InformationFile::sourcePath(bool preferShared) const
{
    if (preferShared && QFile::exists(m_paths.shared))
        return m_paths.shared;
    return m_paths.information;
}

bool InformationFile::load(bool preferShared, PostgresInformation &information, QVariantMap &values)
{
    prepareKey();
    const QString path = sourcePath(preferShared);
    QFile file(path);
    if (!file.exists())
        return false;
    if (!file.open(QIODevice::ReadOnly)) {
        m_relay.log(QStringLiteral("Could not read postgres's information file"), path, PostgresLogLevel::Error);
        return false;
    }
    const QJsonDocument document = QJsonDocument::fromJson(m_cipher.decrypt(file.readAll()));
    if (!document.isObject()) {
        m_relay.log(QStringLiteral("Could not read postgres's information file"), path, PostgresLogLevel::Error);
        return false;
    }
    const QVariantMap loaded = document.object().toVariantMap();
    try {
        information = PostgresInformation::fromValues(loaded);
    } catch (const PostgresException &e) {
        m_relay.log(
            QStringLiteral("Could not load postgres's information from file"), e.message(), PostgresLogLevel::Error);
        return false;
    }
    values = loaded;
    return true;
}

bool InformationFile::save(const PostgresInformation &information)
{
    if (!m_keyReady)
        prepareKey();
    const QByteArray text = QJsonDocument(information.toJson()).toJson(QJsonDocument::Compact);
    // Written beside the old file and renamed over it, so a crash never leaves half a file.
    QSaveFile file(m_paths.information);
    if (!file.open(QIODevice::WriteOnly)) {
        m_relay.log(QStringLiteral("Could not open file for write"), m_paths.information, PostgresLogLevel::Error);
        return false;
    }
    file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    file.write(m_cipher.encrypt(text));
    if (!file.commit()) {
        m_relay.log(QStringLiteral("Could not open file for write"), m_paths.information, PostgresLogLevel::Error);
        return false;
    }
    return true;
}

} // namespace core
