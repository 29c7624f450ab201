#pragma once

#include "core/secrets/InformationFile.h"

#include <QStringList>

// zentrix-dbinfo: shows or provisions the encrypted database information file of an
// installation, through the same load and save paths the service uses.
class DbInfoCommand
{
public:
    explicit DbInfoCommand(const core::InformationFile::Paths &paths);

    // arguments without the program name; returns the exit status.
    int run(const QStringList &arguments);

    static void printUsage();

private:
    int show(bool reveal);
    int set(const QStringList &assignments);
    static bool applyAssignment(QJsonObject &object, const QString &assignment, QString &error);

    core::InformationFile::Paths m_paths;
};
