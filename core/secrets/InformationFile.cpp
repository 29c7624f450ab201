#include "core/secrets/InformationFile.h"

#include "core/PostgresException.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>

namespace core {

InformationFile::Paths InformationFile::pathsIn(const QString &installationFolder)
{
    const QDir dir(installationFolder);
    return {dir.absoluteFilePath(QStringLiteral("zentrix_postgres.dat")),
        dir.absoluteFilePath(QStringLiteral("zentrix_postgres.dat.shared")),
        dir.absoluteFilePath(QStringLiteral("zentrix_postgres.cat"))};
}

InformationFile::InformationFile(const Paths &paths, const PostgresLogRelay &relay)
    : m_paths(paths)
    , m_relay(relay)
{ }

bool InformationFile::fail(const QString &message, const QString &detail)
{
    m_lastError = detail.isEmpty() ? message : message + QStringLiteral(": ") + detail;
    m_relay.log(message, detail, PostgresLogLevel::Error);
    return false;
}

void InformationFile::prepareKey()
{
    if (!m_cipher.loadOrCreateKeyFile(m_paths.key))
        fail(QStringLiteral("Could not open file for write"), m_paths.key);
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
    if (!file.exists()) {
        m_lastError = QStringLiteral("No information file: ") + path;
        return false;
    }
    m_unreadablePath = path;
    if (!file.open(QIODevice::ReadOnly))
        return fail(QStringLiteral("Could not read postgres's information file"), path);
    const QJsonDocument document = QJsonDocument::fromJson(m_cipher.decrypt(file.readAll()));
    if (!document.isObject())
        return fail(QStringLiteral("Could not read postgres's information file"), path);
    const QVariantMap loaded = document.object().toVariantMap();
    try {
        information = PostgresInformation::fromValues(loaded);
    } catch (const PostgresException &e) {
        return fail(QStringLiteral("Could not load postgres's information from file"), e.message());
    }
    values = loaded;
    m_unreadablePath.clear();
    return true;
}

void InformationFile::keepUnreadableFile()
{
    if (m_unreadablePath.isEmpty() || !QFile::exists(m_unreadablePath))
        return;
    const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-hhmmss"));
    QFile::copy(m_unreadablePath, m_unreadablePath + QStringLiteral(".unreadable-") + stamp);
    m_unreadablePath.clear();
}

bool InformationFile::save(const PostgresInformation &information)
{
    if (!m_keyReady)
        prepareKey();
    keepUnreadableFile();
    const QByteArray text = QJsonDocument(information.toJson()).toJson(QJsonDocument::Compact);
    // Written beside the old file and renamed over it, so a crash never leaves half a file.
    QSaveFile file(m_paths.information);
    if (!file.open(QIODevice::WriteOnly))
        return fail(QStringLiteral("Could not open file for write"), m_paths.information);
    file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    file.write(m_cipher.encrypt(text));
    if (!file.commit())
        return fail(QStringLiteral("Could not open file for write"), m_paths.information);
    return true;
}

} // namespace core
