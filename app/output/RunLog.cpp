#include "app/output/RunLog.h"

#include <QDateTime>

QString RunLog::filePath(const QString &logDirectory, const QDate &date)
{
    return logDirectory + QStringLiteral("/data_normalizer-%1.log").arg(date.toString(QStringLiteral("yyyyMMdd")));
}

QString RunLog::tag(int level)
{
    switch (level) {
    case Info:
        return QStringLiteral("[INFO\t]");
    case Warning:
        return QStringLiteral("[WARNING]");
    case Error:
        return QStringLiteral("[ERROR\t]");
    default:
        return QString();
    }
}

void RunLog::open(const QString &path)
{
    m_path = path;
    // Append mode: several runs of one day share the file and every write lands at its end.
    m_stream.open(path.toUtf8().constData(), std::ios::out | std::ios::app);
}

void RunLog::writeLine(int level, const QString &message)
{
    const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyy.MM.dd hh:mm:ss.zzz"));
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_stream << tag(level).toUtf8().constData() << ' ' << stamp.toUtf8().constData() << ": "
             << message.toUtf8().constData() << '\n';
    // Flushed per line so the file is complete up to the last line if the process dies.
    m_stream.flush();
}

void RunLog::writeRaw(const QString &message)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_stream << message.toUtf8().constData() << '\n';
    m_stream.flush();
}

void RunLog::close()
{
    m_stream.close();
}
