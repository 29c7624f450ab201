#pragma once

#include "core/server/process/ServerAccount.h"
#include "support/SqlClient.h"

#include <QString>
#include <QStringList>
#include <QTemporaryDir>

// A throwaway PostgreSQL server: its own cluster in a temporary directory, password
// authentication, a free loopback port and its own socket directory. Run under an
// unprivileged account when the tests run as root; stopped and removed on destruction.
class TestPostgresServer
{
public:
    static constexpr const char *kUser = "zentrix_test";
    static constexpr const char *kPassword = "s3cret-pw";

    TestPostgresServer();
    ~TestPostgresServer();
    TestPostgresServer(const TestPostgresServer &) = delete;
    TestPostgresServer &operator=(const TestPostgresServer &) = delete;

    // Empty when the server runs; otherwise why it does not.
    QString error() const { return m_error; }

    bool start();
    void stop(const QString &mode = QStringLiteral("fast"));

    QString host() const { return QStringLiteral("127.0.0.1"); }
    int port() const { return m_port; }
    QString dataDirectory() const { return m_root.filePath(QStringLiteral("data")); }
    QString rootDirectory() const { return m_root.path(); }
    const core::ServerAccount &account() const { return m_account; }

    SqlClient client() const;
    // Runs SQL (several statements allowed) as the superuser; empty on success, else the error.
    QString execute(const QString &sql, const QString &database = QStringLiteral("postgres")) const;
    // First column of every row of the query.
    QStringList column(const QString &sql, const QString &database = QStringLiteral("postgres")) const;
    // Everything the server logged so far (statements are logged).
    QString serverLog() const;
    // Cuts the server log, so later reads see only what came after.
    void clearServerLog() const;

    // The folder holding PostgreSQL's programs (initdb, pg_ctl, postgres).
    static QString binDirectory();
    static int freePort();

private:
    QString run(const QString &program, const QStringList &arguments, int timeoutMs) const;
    bool initCluster();

    QTemporaryDir m_root;
    core::ServerAccount m_account;
    int m_port = 0;
    QString m_error;
};
