#pragma once

#include <QString>
#include <QStringList>
#include <QVector>

class QSqlQuery;

// What the tool's modes need to know of scan.file before they touch it: what kind of
// relation it is, the type of the repaired column, the relations that hold its rows (the table
// itself, or every leaf partition), their sizes and its primary key.
class ScanTable
{
public:
    struct Relation {
        // As the server names it in SQL (schema-qualified and quoted where needed).
        QString name;
        qint64 blocks = 0;
        // The file that holds its rows as the run began; a rewrite of the relation makes a new one.
        QString filenode;
    };

    // A table of the given relations, as read: for code that only walks its row versions.
    static ScanTable ofRelations(int slotsPerBlock, const QVector<Relation> &relations);

    // Reads the table's shape; false with the server's words in error().
    bool read(QSqlQuery &query, const QString &column);
    // Reads the sizes of the relations that hold the rows; false with the server's words.
    bool readRelations(QSqlQuery &query);

    QString error() const { return m_error; }
    // Why the given option cannot work on the table as read, or empty. rowVersions: the option
    // finds rows by their row versions.
    QString refusal(const QString &option, bool rowVersions) const;
    // "table", "partitioned table", "view", "foreign table", "materialized view", ...
    QString kindName() const;
    bool holdsRows() const { return m_kind == 'r' || m_kind == 'p'; }
    QString columnType() const { return m_columnType; }
    // Text the repair can write back: text or character varying.
    bool columnIsText() const;
    const QVector<Relation> &relations() const { return m_relations; }
    int relationIndex(const QString &name) const;
    // Items one block can hold: the slots of a block in a range of row versions.
    int slotsPerBlock() const { return m_slotsPerBlock; }

    struct Row {
        QString instance;
        // How the run log names it: its primary key's values; without a key its instance, request
        // id and text's digest, beside the row version (and partition) it was read at; only its
        // row version when it could not be read again.
        QString name;
    };
    Row describeRow(QSqlQuery &query, const QString &relation, const QString &tid) const;

    bool hasKey() const { return !m_keyColumns.isEmpty(); }
    // The primary key's values of the row under alias, as a text array (NULL without a key).
    QString keyArray(const QString &alias) const;
    // The row under alias is the one whose key values a text array holds.
    QString keyMatch(const QString &alias, const QString &array) const;
    // How the run log names a row by its key values.
    QString keyName(const QStringList &values) const;

private:
    QString m_error;
    QString m_column;
    char m_kind = 0;
    QString m_columnType;
    int m_slotsPerBlock = 0;
    QVector<Relation> m_relations;
    QStringList m_keyColumns;
    QStringList m_keyTypes;
};
