#pragma once

#include <QDate>
#include <QFile>
#include <QString>

#include <mutex>

// The tool's own daily run log, appended to by every run of the day. A line that cannot be
// written (a full disk) is said once on standard error with the system's reason; the run goes
// on, and later lines are tried again.
class RunLog
{
public:
    enum Level { Info = 0, Warning = 1, Error = 2 };

    // logDirectory + "/data_normalizer-yyyyMMdd.log"
    static QString filePath(const QString &logDirectory, const QDate &date);
    static QString tag(int level);

    // The directory is not created; check isOpen() afterwards, and openError() for why not.
    void open(const QString &path);
    bool isOpen() const { return m_file.isOpen(); }
    QString path() const { return m_path; }
    QString openError() const { return m_openError; }

    // From now on each entry is one line, whatever the server's or the driver's texts in it hold:
    // the tool's modes. The product's run keeps its lines as they always were.
    void keepEntriesOnOneLine() { m_oneLine = true; }

    void writeLine(int level, const QString &message);
    // For a caught exception's message: no tag and no time stamp.
    void writeRaw(const QString &message);
    void close();

private:
    void write(const QByteArray &line);

    // Parallel jobs write from several threads; each line is written whole.
    std::mutex m_mutex;
    QFile m_file;
    QString m_path;
    QString m_openError;
    bool m_writeFailureSaid = false;
    bool m_oneLine = false;
};
