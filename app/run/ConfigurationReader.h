#pragma once

#include "config/loader/CoreConfigLoader.h"

#include <memory>

// Opens the product configuration the way every run does: the registry key, or an INI
// file of exactly that name in the working directory.
class ConfigurationReader
{
public:
    static const QString kLocation;

    // Throws ConfigException when the settings cannot be read. With validate, the
    // validator's exceptions pass through as well. note says where the settings were found
    // when it is not where they are looked for first.
    static std::unique_ptr<core::CoreConfigLoader> load(bool validate, QString *note = nullptr);
};
