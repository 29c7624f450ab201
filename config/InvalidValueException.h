#pragma once

#include "config/ConfigException.h"

class InvalidValueException : public ConfigException
{
public:
    explicit InvalidValueException(const QString &message)
        : ConfigException(message)
    { }
};
