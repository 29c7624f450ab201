#pragma once

#include <QDate>
#include <QString>

#include <fstream>
#include <mutex>

// The tool's own daily run log, appended to by every run of the day.
class RunLog
{
public:
    enum Level { Info = 0, Warning = 1, Error = 2 };

    // logDirectory + "/data_normalizer-yyyyMMdd.log"
    static QString filePath(const QString &logDirectory, const QDate &date);
    static QString tag(int level);

    // The directory is not created; check isOpen() afterwards.
    void open(const QString &path);
    bool isOpen() const { return m_stream.is_open(); }
    QString path() const { return m_path; }

    void writeLine(int level, const QString &message);
    // For a caught exception's message: no tag and no time stamp.
    void writeRaw(const QString &message);
    void close();

private:
    // Parallel jobs write from several threads; each line is written whole.
    std::mutex m_mutex;
    std::ofstream m_stream;
    QString m_path;
};
