#pragma once

#include <QString>
#include <QStringList>

// Finds the operator option an unknown argument was probably meant to be: "--batchd",
// "--job", "--changed_only". Only arguments that begin with "--" are looked at, so the
// product's other arguments ("-H", "help") stay unremarked.
class OptionSpelling
{
public:
    // Edits (a letter added, dropped, changed or two swapped) that still count as a misspelling.
    static constexpr int kMostEdits = 2;

    // The option the argument resembles, or empty.
    static QString resembled(const QString &argument, const QStringList &options);

private:
    static int distance(const QString &a, const QString &b);
};
