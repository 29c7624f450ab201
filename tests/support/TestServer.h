#pragma once

#include "core/server/process/ServerAccount.h"

#include <QSqlDatabase>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

// A throwaway PostgreSQL server: its own cluster in a temporary directory, password
// authentication, a free loopback port. Run under Debian's "postgres" account when the
// tests run as root; stopped and removed on destruction.
class TestServer
{
public:
    static constexpr const char *kUser = "zentrix_test";
    static constexpr const char *kPassword = "s3cret-pw";
    // Set to a port, the tests use the server listening there on 127.0.0.1 (which knows kUser)
    // instead of making one: a test script runs it where the test programs cannot, as for the
    // Windows programs under Wine.
    static constexpr const char *kExternalPortVariable = "ZENTRIX_TEST_SERVER_PORT";

    // settings: the server's own, given as "-c name=value" at each start.
    explicit TestServer(const QStringList &settings = {});
    // A hot standby of primary, copied with pg_basebackup and streaming from it.
    TestServer(const TestServer &primary, const QStringList &settings);
    ~TestServer();
    TestServer(const TestServer &) = delete;
    TestServer &operator=(const TestServer &) = delete;

    // The one server of a test program, made on first use and removed when the program ends.
    static TestServer &shared();
    static void releaseShared();

    // Empty when the server runs; otherwise why it does not.
    QString error() const { return m_error; }
    // Run by someone else: it cannot be stopped or started here.
    bool isExternal() const { return m_external; }
    bool start();
    void stop(const QString &mode = QStringLiteral("fast"));

    int port() const { return m_port; }
    QString dataDirectory() const { return m_root.filePath(QStringLiteral("data")); }
    const core::ServerAccount &account() const { return m_account; }

    // Runs SQL (several statements allowed) as the superuser and returns the rows of the
    // last one, columns joined by '|'; a failure is a test failure.
    QStringList sql(const QString &statements, const QString &database = QStringLiteral("product")) const;
    // Drops and creates the database "product".
    void freshProductDatabase() const;
    // The statements that make the product's tables (tests/fixtures/product-schema.sql), empty.
    static QString productSchema();
    // The same on any server on the loopback port that knows the test user.
    static QStringList sqlAt(int port, const QString &statements, const QString &database);
    // An open connection of the test user, registered under the given name.
    static QSqlDatabase connectionAt(int port, const QString &database, const QString &name);

    static QString binDirectory();
    static int freePort();
    // The server account for the tests: the caller, or "postgres" for root.
    static core::ServerAccount unprivilegedAccount();

private:
    QString run(const QString &program, const QStringList &arguments) const;
    bool prepare();

    QTemporaryDir m_root;
    const QStringList m_settings;
    core::ServerAccount m_account;
    int m_port = 0;
    bool m_external = false;
    QString m_error;
};
