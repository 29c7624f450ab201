#pragma once

#include <QSqlDatabase>
#include <QString>

class QSqlQuery;
class VerboseLog;

// The full-page images the tool's writing sessions put into the WAL, compressed: a page written
// for the first time after a checkpoint goes into the WAL whole, and a repair writes nearly every
// page of the table once. lz4 where the server has it, else pglz; only where the role may set the
// parameter, so that nothing is tried that could fail.
class WalCompression
{
public:
    // Reads on the run's connection what the server offers and the role may set; --verbose says
    // once what was chosen, or why nothing.
    void choose(QSqlQuery &query, const VerboseLog &verbose);
    // Sets the chosen method on a connection of the run, as it is opened (and opened again).
    void apply(const QSqlDatabase &database) const;
    // Empty when nothing is set.
    QString method() const { return m_method; }

private:
    QString m_method;
};
