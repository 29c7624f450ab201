// A client-side fixer of the kind people write, kept for comparison only: it fetches
// every row of every listed instance, repairs the document in the client with the same
// expression, and writes each row back by key, one autocommitted UPDATE per row.
//
//   client_fixer HOST PORT DATABASE USER PASSWORD
#include <QCoreApplication>
#include <QRegularExpression>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QVariant>

#include <cstdio>

namespace {

QSqlDatabase connect(const QStringList &arguments, const QString &name)
{
    QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QPSQL"), name);
    db.setHostName(arguments.at(1));
    db.setPort(arguments.at(2).toInt());
    db.setDatabaseName(arguments.at(3));
    db.setUserName(arguments.at(4));
    db.setPassword(arguments.at(5));
    return db;
}

int fix(const QStringList &arguments)
{
    QSqlDatabase reader = connect(arguments, QStringLiteral("reader"));
    QSqlDatabase writer = connect(arguments, QStringLiteral("writer"));
    if (!reader.open() || !writer.open()) {
        std::fprintf(stderr, "cannot connect: %s\n", qPrintable(reader.lastError().text()));
        return 1;
    }
    const QRegularExpression pattern(
        QStringLiteral(R"((?<![\\]ud[89ab][0-9a-f]{2})[\\]+(?=ud[c-f][0-9a-f]{2})|)"
                       R"([\\]+(?=ud[89ab][0-9a-f]{2}(?![\\]ud[c-f][0-9a-f]{2}))|[\\]+(?=u0000|x))"),
        QRegularExpression::CaseInsensitiveOption);
    const QString replacement = QStringLiteral("\\\\");

    QSqlQuery instances(reader);
    instances.exec(QStringLiteral("SELECT instance_id FROM warehouse.control_refresh ORDER BY instance_id"));
    QStringList ids;
    while (instances.next())
        ids << instances.value(0).toString();

    QSqlQuery update(writer);
    update.prepare(QStringLiteral("UPDATE scan.file SET filetype_details = ? WHERE id = ?"));
    long long rows = 0;
    for (const QString &id : ids) {
        QSqlQuery select(reader);
        select.setForwardOnly(true); // row by row, not the whole result in memory
        select.exec(QStringLiteral("SELECT id, filetype_details FROM scan.file WHERE request_id > %1 AND "
                                   "instance_id = %1")
                        .arg(id));
        while (select.next()) {
            update.bindValue(0, select.value(1).toString().replace(pattern, replacement));
            update.bindValue(1, select.value(0));
            if (!update.exec()) {
                std::fprintf(stderr, "update failed: %s\n", qPrintable(update.lastError().text()));
                return 1;
            }
            ++rows;
        }
    }
    std::printf("%lld rows\n", rows);
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    if (QCoreApplication::arguments().size() != 6) {
        std::fprintf(stderr, "usage: client_fixer HOST PORT DATABASE USER PASSWORD\n");
        return 2;
    }
    const int status = fix(QCoreApplication::arguments());
    QSqlDatabase::removeDatabase(QStringLiteral("reader"));
    QSqlDatabase::removeDatabase(QStringLiteral("writer"));
    return status;
}
