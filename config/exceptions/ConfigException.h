#pragma once

#include "config/exceptions/Exception.h"

class ConfigException : public Exception
{
public:
    explicit ConfigException(const QString &message)
        : Exception(message, 0)
    { }
};
