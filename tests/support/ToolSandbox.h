#pragma once

#include <QByteArray>
#include <QDate>
#include <QDir>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

// A self-contained installation for running the real binaries: an installation folder,
// a data folder with logs/, and a working folder holding the configuration file.
class ToolSandbox
{
public:
    struct Result {
        bool crashed = false;
        int exitCode = -1;
        QByteArray out;
        QByteArray err;
    };

    explicit ToolSandbox(const QByteArray &extraGlobalConfig = QByteArray());

    QString root() const { return m_root.path(); }
    QString installation() const { return m_root.filePath(QStringLiteral("install")); }
    QString dataDirectory() const { return m_root.filePath(QStringLiteral("data")); }
    QString workDirectory() const { return m_root.filePath(QStringLiteral("work")); }
    QString configPath() const;
    QString runLogPath() const;
    QByteArray runLog() const;
    // The run log with every time stamp replaced by "<ts>".
    QString runLogMasked() const;

    void writeConfig(const QByteArray &text) const;
    Result runTool(const QStringList &arguments = {}) const;
    Result runDbInfo(const QStringList &arguments) const;

    static Result run(const QString &program, const QStringList &arguments, const QString &workDirectory);

private:
    QTemporaryDir m_root;
};
