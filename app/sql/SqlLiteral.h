#pragma once

#include <QString>

// Texts the tool writes into its statements (instance ids, relation names, the journal's
// records), so that no text can end a literal early.
class SqlLiteral
{
public:
    // The text as an SQL string literal, its quotes doubled.
    static QString of(const QString &text);
};
