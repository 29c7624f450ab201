#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

class QProcess;

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

    explicit ToolSandbox(const QByteArray &extraConfig = QByteArray());

    QString root() const { return m_root.path(); }
    QString installation() const { return m_root.filePath(QStringLiteral("install")); }
    QString dataDirectory() const { return m_root.filePath(QStringLiteral("data")); }
    QString workDirectory() const { return m_root.filePath(QStringLiteral("work")); }
    QString information() const { return installation() + QStringLiteral("/zentrix_postgres.dat"); }
    QString key() const { return installation() + QStringLiteral("/zentrix_postgres.cat"); }
    QString configPath() const;
    QString runLogPath() const;
    // The run log with every time stamp replaced by "<ts>" and the server's error texts
    // (which may span lines) by "<server error>".
    QString runLog() const;

    // The configuration, with extraConfig appended to its [global] group.
    void writeConfig(const QByteArray &extraConfig, const QByteArray &internal = QByteArray()) const;
    // Provisions the information file through zentrix-dbinfo, for the test user; true on success.
    bool provision(int port, const QString &dbName, const QString &type = QStringLiteral("remote"),
        const QStringList &more = QStringList()) const;
    Result runTool(const QStringList &arguments = {}) const;
    // The run log is the day's: removed first, it holds this run's entries alone.
    Result runFresh(const QStringList &arguments = {}) const;
    Result runDbInfo(const QStringList &arguments) const;
    // Starts the tool so that interrupt() reaches it as an operator's Ctrl-C would: on Windows
    // in a console of its own.
    void startTool(QProcess &process, const QStringList &arguments) const;
    // Ctrl-C: SIGINT on POSIX, the console event on Windows. Returns the name the run gives it.
    static QString interrupt(const QProcess &process);

    static Result run(const QString &program, const QStringList &arguments, const QString &workDirectory);
    static QByteArray read(const QString &path);
    // The openssl command line's triple DES in 8-bit CFB with the key file's keys, the first as IV.
    static QByteArray openssl(const QString &keyFile, const QByteArray &input, bool decrypt = false);
    static void write(const QString &path, const QByteArray &bytes);
    // No one but the owner may read it: group and other bits clear, or on Windows no entry of
    // the DACL for Everyone, Authenticated Users or Users.
    static bool ownerOnly(const QString &path);
    // Lets every user read it, as a folder's inherited ACL or a careless chmod would.
    static void exposeToEveryone(const QString &path);

private:
    QTemporaryDir m_root;
};
