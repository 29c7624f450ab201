#include "core/server/ClusterCreator.h"

#include "core/secrets/SecretFile.h"
#include "core/server/FreshFile.h"
#include "core/server/process/PostgresProcess.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcessEnvironment>
#include <QThread>

namespace core {

ClusterCreator::ClusterCreator(const Settings &settings, const ServerAccount &account, const PostgresLogRelay &relay)
    : m_settings(settings)
    , m_account(account)
    , m_relay(relay)
{ }

QString ClusterCreator::passwordPath(const QString &installDirectory)
{
    return QDir(installDirectory).filePath(QLatin1String(kPasswordFileName));
}

QString ClusterCreator::workDirectory(const QString &dataDirectory)
{
    return QDir::cleanPath(dataDirectory) + QLatin1String(kWorkSuffix);
}

void ClusterCreator::removeLeftovers(const QString &installDirectory, const QString &dataDirectory)
{
    QFile::remove(passwordPath(installDirectory));
    const QString work = workDirectory(dataDirectory);
    // A link is removed, never followed.
    if (QFileInfo(work).isSymLink())
        QFile::remove(work);
    else
        QDir(work).removeRecursively();
}

bool ClusterCreator::create()
{
    const QString passwordPath = ClusterCreator::passwordPath(m_settings.installDirectory);
    const QString work = workDirectory(m_settings.dataDirectory);
    // Only the server's account may read the password, and only while initdb runs.
    if (!FreshFile::write(passwordPath, m_settings.password.toUtf8(), FreshFile::kOwnerOnly)
        || !SecretFile::restrictAccess(passwordPath)) {
        QFile::remove(passwordPath);
        m_relay.log(QStringLiteral("Can not open file for write"), passwordPath, PostgresLogLevel::Error);
        return false;
    }
    m_account.handOver(passwordPath);
    // initdb runs as the server's account and must be able to create the directory.
    QDir().mkpath(work);
    m_account.handOver(work);

    m_relay.log(
        QStringLiteral("Creating postgres database cluster for the first time..."), QString(), PostgresLogLevel::Info);
    PostgresProcess process;
    process.setWorkingDirectory(QDir(m_settings.installDirectory).absolutePath());
    process.setProcessEnvironment(QProcessEnvironment());
    m_account.applyTo(process);
    process.start(m_settings.initdbPath,
        {QStringLiteral("-D"), work, QStringLiteral("--username=%1").arg(m_settings.user),
            QStringLiteral("--pwfile=%1").arg(passwordPath), QStringLiteral("--encoding=UTF8"), QStringLiteral("-A"),
            QStringLiteral("password")},
        QIODevice::ReadWrite);
    if (!process.waitForStarted(kStartTimeoutMs)) {
        const QString output = QString::fromLocal8Bit(process.readAllStandardError() + process.readAllStandardOutput());
        m_relay.log(
            QStringLiteral("Can not create database cluster for the first time"), output, PostgresLogLevel::Error);
        m_relay.reason(QStringLiteral("run ") + m_settings.initdbPath, process.errorString());
        QDir(work).removeRecursively();
        return false;
    }
    // No overall limit: a slow disk makes initdb slow, not wrong. Only an interrupt of the
    // run ends it early.
    const bool interruptible = static_cast<bool>(m_settings.interrupted);
    while (process.state() != QProcess::NotRunning) {
        if (interruptible && m_settings.interrupted()) {
            process.kill();
            process.waitForFinished(kWaitSliceMs);
            break;
        }
        process.waitForFinished(interruptible ? kInterruptPollMs : kWaitSliceMs);
    }
    if (QFile::exists(passwordPath))
        QFile::remove(passwordPath);
    const QByteArray errors = process.readAllStandardError();
    if (!errors.isEmpty())
        m_relay.log(QString::fromLocal8Bit(errors), QString(), PostgresLogLevel::Info);
    // The product counts a started initdb as a success, but only a finished cluster takes the
    // data directory's place; the status check that follows then fails on a missing one.
    const bool succeeded = process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    const bool interrupted = interruptible && m_settings.interrupted();
    if (!succeeded && !interrupted)
        m_failure = QStringLiteral("initdb ended with status %1%2")
                        .arg(process.exitCode())
                        .arg(errors.isEmpty() ? QString()
                                              : QStringLiteral(": ") + QString::fromLocal8Bit(errors).simplified());
    if (!succeeded)
        m_relay.reason(QStringLiteral("create the database cluster in ") + m_settings.dataDirectory,
            errors.isEmpty() ? QStringLiteral("initdb ended with status %1").arg(process.exitCode())
                             : QString::fromLocal8Bit(errors));
    else if (!QDir().rename(work, m_settings.dataDirectory))
        m_relay.reason(QStringLiteral("move the new cluster into ") + m_settings.dataDirectory,
            QStringLiteral("renaming %1 failed").arg(work));
    // A killed initdb leaves its bootstrap server writing into the folder until that notices its
    // input is gone, so the removal is tried again for a moment.
    for (QDeadlineTimer deadline(kWorkRemovalLimitMs); !QDir(work).removeRecursively() && !deadline.hasExpired();)
        QThread::msleep(kInterruptPollMs);
    if (interruptible && m_settings.interrupted())
        return false;
    m_relay.log(QStringLiteral("Creating postgres database cluster successful"), QString(), PostgresLogLevel::Info);
    return true;
}

} // namespace core
