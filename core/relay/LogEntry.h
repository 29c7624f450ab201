#pragma once

#include <QDateTime>
#include <QList>
#include <QPair>
#include <QString>

namespace core {

using LogParameters = QList<QPair<QString, QString>>;

// One record of the product logger, shared by all of its outputs.
struct LogEntry {
    QDateTime time;
    int severity = 0;
    int eventId = 0;
    QString category;
    QString title;
    LogParameters parameters;
};

} // namespace core
