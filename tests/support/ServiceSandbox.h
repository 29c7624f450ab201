#pragma once

#include "core/CoreConfigLoader.h"
#include "core/InformationFile.h"
#include "core/PostgresService.h"

#include <QFile>
#include <QSettings>
#include <QTemporaryDir>

#include <memory>

// An installation folder with a configuration and an information file, and the loader
// and service object built over them.
class ServiceSandbox
{
public:
    explicit ServiceSandbox(const QByteArray &extraConfig = QByteArray())
    {
        m_installation = m_root.filePath(QStringLiteral("install"));
        QDir().mkpath(m_installation);
        QDir().mkpath(m_root.filePath(QStringLiteral("data/logs")));
        QFile file(configPath());
        file.open(QIODevice::WriteOnly);
        file.write("InstallationFolder=" + m_installation.toUtf8()
            + "\n[global]\nrestaddress=127.0.0.1\nrestport=8008\n" + extraConfig
            + "\n[internal]\ndata_directory=" + m_root.filePath(QStringLiteral("data")).toUtf8() + "\n");
    }

    QString configPath() const { return m_root.filePath(QStringLiteral("config.ini")); }
    QString installation() const { return m_installation; }
    QString dataDirectory() const { return m_root.filePath(QStringLiteral("data")); }
    QString root() const { return m_root.path(); }

    core::InformationFile::Paths informationPaths() const
    {
        const QDir dir(m_installation);
        return {dir.filePath(QStringLiteral("zentrix_postgres.dat")),
            dir.filePath(QStringLiteral("zentrix_postgres.dat.shared")),
            dir.filePath(QStringLiteral("zentrix_postgres.cat"))};
    }

    void provision(const core::PostgresInformation &information) const
    {
        core::PostgresLogRelay relay;
        core::InformationFile(informationPaths(), relay).save(information);
    }

    core::PostgresInformation stored() const
    {
        core::PostgresLogRelay relay;
        core::PostgresInformation information;
        QVariantMap values;
        core::InformationFile(informationPaths(), relay).load(false, information, values);
        return information;
    }

    core::CoreConfigLoader &loader()
    {
        if (!m_loader) {
            const QSettings settings(configPath(), QSettings::IniFormat);
            m_loader = std::make_unique<core::CoreConfigLoader>(settings, QStringLiteral("test"));
        }
        return *m_loader;
    }

    std::unique_ptr<core::PostgresService> service(bool useLogger = true)
    {
        return std::make_unique<core::PostgresService>(&loader(), useLogger, false);
    }

private:
    QTemporaryDir m_root;
    QString m_installation;
    std::unique_ptr<core::CoreConfigLoader> m_loader;
};
