#include "app/dbinfo/DbInfoCommand.h"

#include "app/output/Console.h"
#include "core/PostgresException.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

const QString kMask = QStringLiteral("********");

enum class ValueType { Text, Integer, Boolean };

ValueType typeOf(const QString &key)
{
    static const QStringList integers = {QStringLiteral("port"), QStringLiteral("db_connection")};
    static const QStringList booleans = {QStringLiteral("is_need_db_upgrade"), QStringLiteral("upgrade_v2_status"),
        QStringLiteral("retain_private_user")};
    if (integers.contains(key))
        return ValueType::Integer;
    if (booleans.contains(key))
        return ValueType::Boolean;
    return ValueType::Text;
}

bool parseBoolean(const QString &text, bool &value)
{
    if (text.compare(QLatin1String("true"), Qt::CaseInsensitive) == 0 || text == QLatin1String("1"))
        value = true;
    else if (text.compare(QLatin1String("false"), Qt::CaseInsensitive) == 0 || text == QLatin1String("0"))
        value = false;
    else
        return false;
    return true;
}

} // namespace

DbInfoCommand::DbInfoCommand(const core::InformationFile::Paths &paths)
    : m_paths(paths)
{ }

void DbInfoCommand::printUsage()
{
    Console::err(QStringLiteral("Usage:"));
    Console::err(QStringLiteral(" zentrix-dbinfo [--installation DIR] show [--reveal]"));
    Console::err(QStringLiteral(" zentrix-dbinfo [--installation DIR] set KEY=VALUE..."));
    Console::err(QStringLiteral(" Keys: host, port, user, password, type (local, remote, 1, 2), dbname, "
                                "db_connection, is_need_db_upgrade, upgrade_v2_status, instance_name, "
                                "private_password, pin_code, deployment_id, core_version, private_username, "
                                "retain_private_user"));
}

int DbInfoCommand::run(const QStringList &arguments)
{
    const QString verb = arguments.value(0);
    if (verb == QLatin1String("show") && arguments.size() <= 2) {
        const bool reveal = arguments.value(1) == QLatin1String("--reveal");
        if (arguments.size() == 2 && !reveal) {
            printUsage();
            return 2;
        }
        return show(reveal);
    }
    if (verb == QLatin1String("set") && arguments.size() >= 2)
        return set(arguments.mid(1));
    printUsage();
    return 2;
}

int DbInfoCommand::show(bool reveal)
{
    if (!QFile::exists(m_paths.key)) {
        Console::err(QStringLiteral("No key file: ") + m_paths.key);
        return 1;
    }
    core::PostgresLogRelay silent;
    core::InformationFile file(m_paths, silent);
    core::PostgresInformation information;
    QVariantMap values;
    // What the tool loads: the shared copy where there is one.
    if (!file.load(true, information, values)) {
        Console::err(file.lastError());
        return 1;
    }
    for (const QString &secret : {m_paths.key, file.loadedPath()}) {
        const QString warning = core::InformationFile::exposure(secret);
        if (!warning.isEmpty())
            Console::err(QStringLiteral("WARNING: ") + warning);
    }
    Console::err(QStringLiteral("Information file: ") + file.loadedPath());
    QJsonObject object = QJsonObject::fromVariantMap(values);
    if (!reveal) {
        for (const QString &secret : {QStringLiteral("password"), QStringLiteral("private_password")}) {
            if (object.contains(secret) && !object.value(secret).toString().isEmpty())
                object.insert(secret, kMask);
        }
    }
    Console::out(QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Indented)).trimmed());
    return 0;
}

int DbInfoCommand::set(const QStringList &assignments)
{
    core::PostgresLogRelay silent;
    core::InformationFile file(m_paths, silent);
    core::PostgresInformation information;
    QVariantMap values;
    if (QFile::exists(m_paths.information) && !file.load(false, information, values)) {
        Console::err(file.lastError());
        Console::err(QStringLiteral("Refusing to overwrite an information file that does not load."));
        return 1;
    }
    QJsonObject object = information.toJson();
    for (const QString &assignment : assignments) {
        QString error;
        if (!applyAssignment(object, assignment, error)) {
            Console::err(error);
            return 1;
        }
    }
    try {
        information = core::PostgresInformation::fromValues(object.toVariantMap());
    } catch (const core::PostgresException &e) {
        Console::err(e.message());
        return 1;
    }
    if (!file.save(information)) {
        Console::err(file.lastError());
        return 1;
    }
    Console::out(QStringLiteral("Saved ") + m_paths.information);
    return 0;
}

bool DbInfoCommand::applyAssignment(QJsonObject &object, const QString &assignment, QString &error)
{
    const int separator = assignment.indexOf(QLatin1Char('='));
    const QString key = assignment.left(separator);
    const QString text = assignment.mid(separator + 1);
    if (separator <= 0 || !object.contains(key)) {
        error = QStringLiteral("Unknown key in \"%1\"; expected KEY=VALUE with one of the keys listed by --help")
                    .arg(assignment);
        return false;
    }
    bool ok = true;
    switch (typeOf(key)) {
    case ValueType::Integer: {
        const int number = text.toInt(&ok);
        if (key == QLatin1String("port"))
            ok = ok && number >= 1 && number <= 65535;
        if (ok)
            object.insert(key, number);
        break;
    }
    case ValueType::Boolean: {
        bool flag = false;
        ok = parseBoolean(text, flag);
        if (ok)
            object.insert(key, flag);
        break;
    }
    case ValueType::Text:
        object.insert(key, text);
        break;
    }
    if (!ok)
        error = QStringLiteral("Invalid value for %1: \"%2\"").arg(key, text);
    return ok;
}
