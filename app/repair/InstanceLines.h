#pragma once

#include "app/repair/InstanceList.h"

#include <QString>

class QSqlQuery;
class Reporter;
class VerboseLog;

// The lines a run writes about one instance, on the console and in the run log.
class InstanceLines
{
public:
    static const QString kColumn;

    // The done line; suffix ends both.
    static void done(
        const InstanceList::Instance &instance, const Reporter &reporter, const QString &suffix = QString());
    // The warning line on the console, and with the reason in the run log.
    static void failed(const InstanceList::Instance &instance, const Reporter &reporter, const QString &reason);
    // For --verbose: how long the instance's statement took and what it did, or why it failed.
    static void explain(const VerboseLog &verbose, const InstanceList::Instance &instance, const QSqlQuery &query,
        bool done, qint64 elapsedMs);
};
