#pragma once

#include <QString>
#include <QStringList>

// Runs SQL for a test on a connection of its own, opened and removed per call.
struct SqlClient {
    QString host;
    int port = 0;
    QString user;
    QString password;

    // Empty on success, else the error (several statements allowed).
    QString execute(const QString &sql, const QString &database) const;
    // First column of every row of the query.
    QStringList column(const QString &sql, const QString &database) const;
};
