#include "config/exceptions/UnknownKeyException.h"

UnknownKeyException::UnknownKeyException(const QString &message, const QStringList &keys)
    : ConfigException(message)
    , m_keys(keys)
{ }

UnknownKeyException::~UnknownKeyException() = default;
