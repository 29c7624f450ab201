#pragma once

#include "config/exceptions/ConfigException.h"

#include <QStringList>

class UnknownKeyException : public ConfigException
{
public:
    UnknownKeyException(const QString &message, const QStringList &keys);
    UnknownKeyException(const UnknownKeyException &other) = default;
    ~UnknownKeyException() override;

    // Every key found unknown, even when the message names only the first.
    QStringList keys() const { return m_keys; }

private:
    QStringList m_keys;
};
