#pragma once

#include "config/exceptions/ConfigException.h"

class MissingKeyException : public ConfigException
{
public:
    explicit MissingKeyException(const QString &message)
        : ConfigException(message)
    { }
};
