#include "core/secrets/InformationFile.h"

#include "core/PostgresException.h"
#include "core/secrets/SecretFile.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

namespace core {

InformationFile::Paths InformationFile::pathsIn(const QString &installationFolder)
{
    const QDir dir(installationFolder);
    return {dir.absoluteFilePath(QStringLiteral("zentrix_postgres.dat")),
        dir.absoluteFilePath(QStringLiteral("zentrix_postgres.dat.shared")),
        dir.absoluteFilePath(QStringLiteral("zentrix_postgres.cat"))};
}

QString InformationFile::exposure(const QString &path)
{
    if (!SecretFile::readableByEveryone(path))
        return QString();
    return QStringLiteral("%1 may be read by every user of this machine, though it holds the database's credentials "
                          "or their key: let only the installation's account (on Windows also SYSTEM and the "
                          "Administrators) read it")
        .arg(QDir::toNativeSeparators(path));
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
    m_keyOnDisk = m_cipher.loadOrCreateKeyFile(m_paths.key);
    if (!m_keyOnDisk)
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
    for (const QString &secret : {m_paths.key, path}) {
        const QString warning = exposure(secret);
        if (!warning.isEmpty())
            m_relay.note(warning);
    }
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
    m_loadedPath = path;
    return true;
}

void InformationFile::keepCopyOf(const QString &path)
{
    if (path.isEmpty() || !QFile::exists(path))
        return;
    // The first copy is the file as it was before any run replaced it; beyond it only the
    // newest are kept, so a run that fails again and again does not pile up credentials.
    const QFileInfo source(path);
    const QString prefix = source.fileName() + QStringLiteral(".unreadable-");
    const QDir folder = source.absoluteDir();
    QStringList copies = folder.entryList({prefix + QLatin1Char('*')}, QDir::Files, QDir::Name);
    while (copies.size() >= kKeptUnreadableCopies)
        QFile::remove(folder.filePath(copies.takeAt(1)));
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return;
    const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-hhmmss-zzz"));
    QString copy = folder.filePath(prefix + stamp);
    // Two copies within one millisecond must not overwrite each other.
    for (int n = 1; QFile::exists(copy); ++n)
        copy = folder.filePath(prefix + stamp + QStringLiteral("-%1").arg(n));
    if (SecretFile::write(copy, file.readAll()))
        m_keptCopies << copy;
}

bool InformationFile::save(const PostgresInformation &information)
{
    if (!m_keyReady)
        prepareKey();
    // Encrypted with a key that is not on disk, the record could never be read again.
    if (!m_keyOnDisk)
        return fail(QStringLiteral("Could not open file for write"), m_paths.key);
    keepCopyOf(m_unreadablePath);
    if (m_unreadablePath != m_paths.information && m_loadedPath != m_paths.information)
        keepCopyOf(m_paths.information);
    m_unreadablePath.clear();
    const QByteArray text = QJsonDocument(information.toJson()).toJson(QJsonDocument::Compact);
    if (!SecretFile::write(m_paths.information, m_cipher.encrypt(text)))
        return fail(QStringLiteral("Could not open file for write"), m_paths.information);
    m_loadedPath = m_paths.information;
    return true;
}

} // namespace core
