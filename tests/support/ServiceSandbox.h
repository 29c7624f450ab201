#pragma once

#include "config/loader/CoreConfigLoader.h"
#include "core/PostgresService.h"
#include "core/secrets/InformationFile.h"
#include "support/ToolSandbox.h"

#include <QSettings>

#include <memory>

// The tool's sandbox, with the loader and the service object built over it in-process.
class ServiceSandbox : public ToolSandbox
{
public:
    using ToolSandbox::ToolSandbox;

    void provision(const core::PostgresInformation &information) const
    {
        core::PostgresLogRelay relay;
        core::InformationFile(core::InformationFile::pathsIn(installation()), relay).save(information);
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

    // A service whose information is already loaded from the provisioned file.
    std::unique_ptr<core::PostgresService> loadedService(const core::PostgresInformation &information)
    {
        provision(information);
        auto loaded = service();
        return loaded->loadInformation(false) ? std::move(loaded) : nullptr;
    }

private:
    std::unique_ptr<core::CoreConfigLoader> m_loader;
};
