#include "core/PostgresService.h"

#include "config/exceptions/Exception.h"
#include "config/loader/CoreConfigLoader.h"
#include "core/ConnectionText.h"

#include <QDateTime>
#include <QSqlError>
#include <QSqlQuery>

namespace core {

namespace {
const QString kConnectionName = QStringLiteral("kvcore_connection");
const QString kDriver = QStringLiteral("QPSQL");

QString quotedOption(QString value)
{
    return value.replace(QLatin1Char('\\'), QStringLiteral("\\\\")).replace(QLatin1Char('\''), QStringLiteral("\\'"));
}
} // namespace

const QMap<QString, int> PostgresService::requiredSchemaVersions = {
    {QStringLiteral("auditlog"), 3},
    {QStringLiteral("av"), 10},
    {QStringLiteral("cached_scan"), 8},
    {QStringLiteral("cloud"), 3},
    {QStringLiteral("config"), 68},
    {QStringLiteral("db"), 10},
    {QStringLiteral("dlp"), 6},
    {QStringLiteral("engine"), 10},
    {QStringLiteral("privileges"), 1},
    {QStringLiteral("quarantine"), 6},
    {QStringLiteral("register"), 1},
    {QStringLiteral("sanitized"), 11},
    {QStringLiteral("scan"), 39},
    {QStringLiteral("setup"), 68},
    {QStringLiteral("webhook"), 0},
    {QStringLiteral("yara"), 60},
};

PostgresInformation PostgresService::connectionSettings() const
{
    return m_information;
}

QString PostgresService::configureHandle(QSqlDatabase &database, const QString &dbName) const
{
    QStringList options(ConnectionText::clientEncodingOption());
    if (qEnvironmentVariableIsEmpty("PGCONNECT_TIMEOUT"))
        options << QStringLiteral("connect_timeout=%1").arg(kConnectTimeoutSeconds);
    if (!m_sessionSettings.isEmpty()) {
        // libpq takes "options" instead of PGOPTIONS, so the operator's come first and ours win.
        QString value = qEnvironmentVariable("PGOPTIONS");
        for (const QString &setting : m_sessionSettings)
            value += QStringLiteral(" -c ") + setting;
        options << QStringLiteral("options='%1'").arg(quotedOption(value.trimmed()));
    }
    // The password's round trip through the local code page is how the product has always
    // passed it; the other texts take the same way, so that all of them arrive as UTF-8.
    const std::optional<QString> name = ConnectionText::forDriver(dbName);
    const std::optional<QString> user = ConnectionText::forDriver(m_information.user);
    const std::optional<QString> password = ConnectionText::forDriver(m_information.password);
    const std::optional<QString> connectOptions = ConnectionText::forDriver(options.join(QLatin1Char(';')));
    if (!name || !user || !password || !connectOptions)
        return QStringLiteral("the database name, user name, password or connection options have characters whose "
                              "UTF-8 bytes the system's ANSI code page cannot carry to libpq");
    database.setHostName(m_information.host);
    database.setPort(m_information.port);
    database.setDatabaseName(*name);
    database.setUserName(*user);
    database.setPassword(*password);
    database.setConnectOptions(*connectOptions);
    return QString();
}

bool PostgresService::openConnection(
    QSqlDatabase &database, const QString &dbName, QString &connectionName, bool logFailure)
{
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    connectionName = kConnectionName;
    connectionName += QStringLiteral("_%1").arg(now);
    database = QSqlDatabase::addDatabase(kDriver, connectionName);
    const QString unfit = configureHandle(database, dbName);
    if (unfit.isEmpty() && database.open())
        return true;
    m_relay.reason(
        QStringLiteral("connect to database %1 at %2:%3").arg(dbName, m_information.host).arg(m_information.port),
        unfit.isEmpty() ? database.lastError().text() : unfit);
    if (logFailure)
        logPostgres(QStringLiteral("Could not connecting to postgres server, dbname = %1").arg(dbName),
            m_information.host, PostgresLogLevel::Error);
    return false;
}

bool PostgresService::checkConnection(const QString &dbName)
{
    bool ok = false;
    try {
        QSqlDatabase database = QSqlDatabase::addDatabase(kDriver, kConnectionName);
        const QString unfit = configureHandle(database, dbName);
        ok = unfit.isEmpty() && database.open();
        if (!ok)
            m_lastConnectionError = unfit.isEmpty() ? database.lastError().text() : unfit;
        database.close();
    } catch (const std::exception &) {
        // The exception text is deliberately not part of the message.
        logPostgres(QStringLiteral("Error when checking connection, dbname = %1, error = ").arg(dbName),
            m_information.host, PostgresLogLevel::Error);
        ok = false;
    } catch (...) {
        logPostgres(QStringLiteral("Error when checking connection, unknow error"), m_information.host,
            PostgresLogLevel::Error);
        ok = false;
    }
    QSqlDatabase::removeDatabase(kConnectionName);
    return ok;
}

bool PostgresService::tableExists(QSqlDatabase database, const QString &schema, const QString &table)
{
    QSqlQuery query(database);
    const QString sql
        = QStringLiteral("select exists (select from pg_tables where schemaname = '%1' and tablename = '%2');")
              .arg(schema, table);
    if (!query.exec(sql))
        throw Exception(QStringLiteral("Error while checking table existence. Table: %1.%2 Detail: %3")
                            .arg(schema, table, query.lastError().text()));
    bool exists = false;
    if (query.next()) {
        exists = query.value(0).toBool();
        query.finish();
    }
    return exists;
}

void PostgresService::checkDbUpgrade()
{
    logPostgres(QStringLiteral("Checking for database upgrade"), QString(), PostgresLogLevel::Info);
    QString connectionName;
    try {
        runUpgradeCheck(connectionName);
    } catch (const Exception &e) {
        logPostgres(e.message(), QString(), PostgresLogLevel::Info);
    }
    QSqlDatabase::removeDatabase(connectionName);
}

void PostgresService::runUpgradeCheck(QString &connectionName)
{
    QSqlDatabase database;
    if (!openConnection(database, m_databaseName, connectionName, false)) {
        m_upgradeNeeded = false;
        throw Exception(QStringLiteral("Can't create connection"));
    }
    const QString lookup = QStringLiteral("SELECT instance_id FROM register.instance where instance_name = '%1'");
    QSqlQuery query(database);
    if (!query.exec(lookup.arg(m_configuration->instanceName())) || !query.next()) {
        if (m_sharedDbMode) {
            m_upgradeNeeded = false;
            throw Exception(QStringLiteral("instance_name doesnt exist"));
        }
        logPostgres(
            QStringLiteral("DBMode is standalone, checking for deploymentId"), QString(), PostgresLogLevel::Info);
        if (!query.exec(lookup.arg(m_information.deploymentId)) || !query.next()) {
            m_upgradeNeeded = false;
            throw Exception(QStringLiteral("deploymentId doesnt exist"));
        }
    }
    const QString filter = QStringLiteral("WHERE instance_id=%1").arg(query.value(0).toInt());
    query.finish();

    for (auto it = requiredSchemaVersions.cbegin(); it != requiredSchemaVersions.cend(); ++it) {
        if (!tableExists(database, it.key(), QStringLiteral("schema_version")))
            continue;
        QSqlQuery version(QStringLiteral("SELECT version from %1.schema_version %2;").arg(it.key(), filter), database);
        if (!version.isActive() || !version.next())
            continue;
        const int current = version.value(0).toInt();
        version.finish();
        if (current < it.value()) {
            m_upgradeNeeded = true;
            break;
        }
    }

    const QString schema = QStringLiteral("warehouse");
    const QString table = QStringLiteral("control_schema_version");
    QSqlQuery columnTest(database);
    const QString columnSql = QStringLiteral("SELECT 1 FROM information_schema.columns WHERE table_schema = '%1' AND "
                                             "table_name = '%2' AND column_name = '%3';")
                                  .arg(schema, table, QStringLiteral("instance_id"));
    if (!columnTest.exec(columnSql))
        throw Exception(columnTest.lastError().text());
    const QString controlSql = columnTest.next()
        ? QStringLiteral("SELECT version FROM %1.%2 %3;").arg(schema, table, filter)
        : QStringLiteral("SELECT version FROM %1.%2;").arg(schema, table);
    columnTest.finish();
    QSqlQuery control(controlSql, database);
    if (control.isActive() && control.next() && control.value(0).toInt() < kRequiredControlVersion)
        m_upgradeNeeded = true;
    control.finish();
    database.close();
}

} // namespace core
