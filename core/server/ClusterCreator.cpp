#include "core/server/ClusterCreator.h"

#include "core/server/FreshFile.h"
#include "core/server/process/PostgresProcess.h"

#include <QDir>
#include <QFile>
#include <QProcessEnvironment>

namespace core {

ClusterCreator::ClusterCreator(const Settings &settings, const ServerAccount &account, const PostgresLogRelay &relay)
    : m_settings(settings)
    , m_account(account)
    , m_relay(relay)
{ }

bool ClusterCreator::create()
{
    const QString passwordPath = QDir(m_settings.installDirectory).filePath(QLatin1String(kPasswordFileName));
    // Only the server's account may read the password, and only while initdb runs.
    if (!FreshFile::write(passwordPath, m_settings.password.toUtf8(), FreshFile::kOwnerOnly)) {
        m_relay.log(QStringLiteral("Can not open file for write"), passwordPath, PostgresLogLevel::Error);
        return false;
    }
    m_account.handOver(passwordPath);
    // initdb runs as the server's account and must be able to create the directory.
    QDir().mkpath(m_settings.dataDirectory);
    m_account.handOver(m_settings.dataDirectory);

    m_relay.log(
        QStringLiteral("Creating postgres database cluster for the first time..."), QString(), PostgresLogLevel::Info);
    PostgresProcess process;
    process.setWorkingDirectory(QDir(m_settings.installDirectory).absolutePath());
    process.setProcessEnvironment(QProcessEnvironment());
    m_account.applyTo(process);
    process.start(m_settings.initdbPath,
        {QStringLiteral("-D"), m_settings.dataDirectory, QStringLiteral("--username=%1").arg(m_settings.user),
            QStringLiteral("--pwfile=%1").arg(passwordPath), QStringLiteral("--encoding=UTF8"), QStringLiteral("-A"),
            QStringLiteral("password")},
        QIODevice::ReadWrite);
    if (!process.waitForStarted(kStartTimeoutMs)) {
        const QString output = QString::fromLocal8Bit(process.readAllStandardError() + process.readAllStandardOutput());
        m_relay.log(
            QStringLiteral("Can not create database cluster for the first time"), output, PostgresLogLevel::Error);
        m_relay.reason(QStringLiteral("run ") + m_settings.initdbPath, process.errorString());
        return false;
    }
    // No overall limit: a slow disk makes initdb slow, not wrong.
    while (process.state() != QProcess::NotRunning)
        process.waitForFinished(kWaitSliceMs);
    if (QFile::exists(passwordPath))
        QFile::remove(passwordPath);
    const QByteArray errors = process.readAllStandardError();
    if (!errors.isEmpty())
        m_relay.log(QString::fromLocal8Bit(errors), QString(), PostgresLogLevel::Info);
    // The product counts a started initdb as a success; its operator still learns why it failed.
    if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0)
        m_relay.reason(QStringLiteral("create the database cluster in ") + m_settings.dataDirectory,
            errors.isEmpty() ? QStringLiteral("initdb ended with status %1").arg(process.exitCode())
                             : QString::fromLocal8Bit(errors));
    m_relay.log(QStringLiteral("Creating postgres database cluster successful"), QString(), PostgresLogLevel::Info);
    return true;
}

} // namespace core
