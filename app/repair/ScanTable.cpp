#include "app/repair/ScanTable.h"

#include "app/repair/RepairStatements.h"
#include "app/sql/SqlLiteral.h"

#include <QSqlError>
#include <QSqlQuery>
#include <QVariant>

namespace {
const QString kTable = QStringLiteral("scan.file");
// A heap page's header and, per item, its line pointer and tuple header (24 + 4 bytes): the
// most items a block can hold, as the server computes MaxHeapTuplesPerPage. Items count from 1.
constexpr int kPageHeaderBytes = 24;
constexpr int kBytesPerItem = 28;
} // namespace

ScanTable ScanTable::ofRelations(int slotsPerBlock, const QVector<Relation> &relations)
{
    ScanTable table;
    table.m_kind = 'r';
    table.m_slotsPerBlock = slotsPerBlock;
    table.m_relations = relations;
    return table;
}

bool ScanTable::read(QSqlQuery &query, const QString &column)
{
    const QString shape = QStringLiteral(
        "SELECT c.relkind, (SELECT format_type(a.atttypid, a.atttypmod) FROM pg_attribute a WHERE a.attrelid = c.oid "
        "AND a.attname = %1 AND NOT a.attisdropped), current_setting('block_size')::int, k.names, k.types FROM "
        "pg_class c LEFT JOIN LATERAL (SELECT string_agg(quote_ident(a.attname), ',' ORDER BY "
        "array_position(i.indkey, a.attnum)) AS names, string_agg(format_type(a.atttypid, NULL), ',' ORDER BY "
        "array_position(i.indkey, a.attnum)) AS types FROM pg_index i JOIN pg_attribute a ON a.attrelid = i.indrelid "
        "AND a.attnum = ANY (i.indkey) WHERE i.indrelid = c.oid AND i.indisprimary) k ON true WHERE c.oid = "
        "%2::regclass");
    if (!query.exec(shape.arg(SqlLiteral::of(column), SqlLiteral::of(kTable))) || !query.next()) {
        m_error = query.lastError().text().simplified();
        return false;
    }
    m_column = column;
    m_kind = query.value(0).toString().toLatin1().at(0);
    m_columnType = query.value(1).toString();
    m_slotsPerBlock = (query.value(2).toInt() - kPageHeaderBytes) / kBytesPerItem + 1;
    const QString key = query.value(3).toString();
    m_keyColumns = key.isEmpty() ? QStringList() : key.split(QLatin1Char(','));
    m_keyTypes = key.isEmpty() ? QStringList() : query.value(4).toString().split(QLatin1Char(','));
    return true;
}

bool ScanTable::readRelations(QSqlQuery &query)
{
    // A partitioned table holds no rows of its own: its leaves do, at any depth.
    const QString sizes = m_kind == 'p'
        ? QStringLiteral("SELECT p.relid::regclass::text, c.relkind, pg_relation_size(p.relid) / "
                         "current_setting('block_size')::bigint, pg_relation_filenode(p.relid) FROM "
                         "pg_partition_tree(%1::regclass) p JOIN pg_class c ON c.oid = p.relid WHERE p.isleaf ORDER "
                         "BY p.level, 1")
        : QStringLiteral(
            "SELECT %1::regclass::text, 'r', pg_relation_size(%1) / current_setting('block_size')::bigint, "
            "pg_relation_filenode(%1)");
    if (!query.exec(sizes.arg(SqlLiteral::of(kTable)))) {
        m_error = query.lastError().text().simplified();
        return false;
    }
    m_relations.clear();
    while (query.next()) {
        if (query.value(1).toString() != QLatin1String("r")) {
            m_error = QStringLiteral("its partition %1 is not a table").arg(query.value(0).toString());
            return false;
        }
        m_relations.append({query.value(0).toString(), query.value(2).toLongLong(), query.value(3).toString()});
    }
    return true;
}

QString ScanTable::refusal(const QString &option, bool rowVersions) const
{
    if (rowVersions && !holdsRows())
        return QStringLiteral("%1 finds rows by their row versions, which scan.file, a %2 here, does not have. Use "
                              "the run without options, which updates it through the server.")
            .arg(option, kindName());
    if (!columnIsText())
        return QStringLiteral("%1 works on filetype_details as text; in scan.file it is of type %2, which the "
                              "repaired text cannot be written back to. Nothing was changed.")
            .arg(option, m_columnType.isEmpty() ? QStringLiteral("(no such column)") : m_columnType);
    return QString();
}

QString ScanTable::kindName() const
{
    switch (m_kind) {
    case 'r':
        return QStringLiteral("table");
    case 'p':
        return QStringLiteral("partitioned table");
    case 'v':
        return QStringLiteral("view");
    case 'f':
        return QStringLiteral("foreign table");
    case 'm':
        return QStringLiteral("materialized view");
    default:
        return QStringLiteral("relation of kind '%1'").arg(QLatin1Char(m_kind));
    }
}

bool ScanTable::columnIsText() const
{
    return m_columnType == QLatin1String("text") || m_columnType.startsWith(QLatin1String("character varying"));
}

int ScanTable::relationIndex(const QString &name) const
{
    for (int i = 0; i < m_relations.size(); ++i) {
        if (m_relations[i].name == name)
            return i;
    }
    return -1;
}

ScanTable::Row ScanTable::describeRow(QSqlQuery &query, const QString &relation, const QString &tid) const
{
    const QString where = m_relations.size() > 1 ? QStringLiteral(" in %1").arg(relation) : QString();
    Row row{QString(), QStringLiteral("ctid %1%2").arg(tid, where)};
    QStringList values;
    for (const QString &key : m_keyColumns)
        values << key + QStringLiteral("::text");
    // Without a key, what still finds the row once it has moved: its request and its text's digest.
    const QString digest = QStringLiteral("md5(%1::text)").arg(m_column);
    if (values.isEmpty())
        values << QStringLiteral("coalesce(request_id::text, 'NULL')")
               << QStringLiteral("coalesce(%1, 'NULL')").arg(digest);
    const QString read = QStringLiteral("SELECT instance_id::text, concat_ws(', ', %1) FROM %2 WHERE ctid = %3")
                             .arg(values.join(QStringLiteral(", ")), relation, SqlLiteral::of(tid));
    if (!query.exec(read) || !query.next())
        return row;
    row.instance = query.value(0).toString();
    if (m_keyColumns.size() == 1) {
        row.name = QStringLiteral("%1=%2").arg(m_keyColumns.first(), query.value(1).toString());
    } else if (!m_keyColumns.isEmpty()) {
        row.name = QStringLiteral("(%1)=(%2)").arg(m_keyColumns.join(QStringLiteral(", ")), query.value(1).toString());
    } else {
        const QStringList found = query.value(1).toString().split(QStringLiteral(", "));
        row.name = QStringLiteral("instance_id=%1, request_id=%2, %3=%4, read at %5")
                       .arg(row.instance.isEmpty() ? QStringLiteral("NULL") : row.instance, found.value(0), digest,
                           found.value(1), row.name);
    }
    return row;
}

QString ScanTable::keyArray(const QString &alias) const
{
    if (m_keyColumns.isEmpty())
        return QStringLiteral("NULL::text[]");
    QStringList values;
    for (const QString &key : m_keyColumns)
        values << QStringLiteral("%1.%2::text").arg(alias, key);
    return QStringLiteral("ARRAY[%1]").arg(values.join(QStringLiteral(", ")));
}

// Each key column compared as its own type, so that its index finds the row.
QString ScanTable::keyMatch(const QString &alias, const QString &array) const
{
    QStringList terms;
    for (int i = 0; i < m_keyColumns.size(); ++i)
        terms << QStringLiteral("%1.%2 = (%3[%4])::%5")
                     .arg(alias, m_keyColumns[i], array)
                     .arg(i + 1)
                     .arg(m_keyTypes.value(i));
    return terms.join(QStringLiteral(" AND "));
}

QString ScanTable::keyName(const QStringList &values) const
{
    if (m_keyColumns.size() == 1)
        return QStringLiteral("%1=%2").arg(m_keyColumns.first(), values.value(0));
    return QStringLiteral("(%1)=(%2)").arg(m_keyColumns.join(QStringLiteral(", ")), values.join(QStringLiteral(", ")));
}
