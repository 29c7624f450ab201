#include "app/output/RunLog.h"

#include "app/output/Console.h"

#include <QDateTime>
#include <QRegularExpression>

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
    m_file.setFileName(path);
    // Append mode: several runs of one day share the file and every write lands at its end.
    if (!m_file.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Unbuffered))
        m_openError = m_file.errorString();
}

void RunLog::writeLine(int level, const QString &message)
{
    static const QRegularExpression lineBreaks(QStringLiteral("\\s*[\\r\\n]+\\s*"));
    const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyy.MM.dd hh:mm:ss.zzz"));
    // Only a text that holds a line break is touched: the dry run's table aligns its cells with blanks.
    const bool broken = m_oneLine && (message.contains(QLatin1Char('\n')) || message.contains(QLatin1Char('\r')));
    const QString text = broken ? message.trimmed().replace(lineBreaks, QStringLiteral(" ")) : message;
    write((tag(level) + QLatin1Char(' ') + stamp + QStringLiteral(": ") + text).toUtf8());
}

void RunLog::writeRaw(const QString &message)
{
    write(message.toUtf8());
}

// Written unbuffered, line by line, so the file is complete up to the last line if the
// process dies.
void RunLog::write(const QByteArray &line)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_file.isOpen())
        return;
    if (m_file.write(line + '\n') == line.size() + 1 || m_writeFailureSaid)
        return;
    m_writeFailureSaid = true;
    Console::err(QStringLiteral("WARNING: Cannot write to the run log %1: %2").arg(m_path, m_file.errorString()));
}

void RunLog::close()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_file.close();
}
