#pragma once

#include "config/exceptions/ConfigException.h"

class InvalidValueException : public ConfigException
{
public:
    explicit InvalidValueException(const QString &message)
        : ConfigException(message)
    { }
};
