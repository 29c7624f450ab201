#include "core/server/ServerLog.h"

#include <QDir>
#include <QFile>

namespace core {

ServerLog::ServerLog(const QString &dataDirectory)
    : m_folder(dataDirectory + QStringLiteral("/log"))
{ }

void ServerLog::mark()
{
    m_ends.clear();
    const QDir folder(m_folder);
    for (const QFileInfo &file : folder.entryInfoList(QDir::Files))
        m_ends.insert(file.fileName(), file.size());
}

QStringList ServerLog::complaintsSinceMark() const
{
    QStringList complaints;
    const QDir folder(m_folder);
    for (const QString &name : folder.entryList(QDir::Files, QDir::Time | QDir::Reversed)) {
        QFile file(folder.filePath(name));
        if (!file.open(QIODevice::ReadOnly) || !file.seek(m_ends.value(name, 0)))
            continue;
        for (const QByteArray &line : file.readAll().split('\n')) {
            if (line.contains("FATAL:") || line.contains("PANIC:") || line.contains("could not bind"))
                complaints << QString::fromLocal8Bit(line).simplified();
        }
    }
    return complaints;
}

} // namespace core
