#include "config/exceptions/Exception.h"

Exception::Exception(const QString &message, int code)
    : m_code(code)
    , m_message(message)
    , m_what(message.toLocal8Bit())
{ }

Exception::~Exception() = default;

const char *Exception::what() const noexcept
{
    return m_what.constData();
}

void Exception::raise() const
{
    throw Exception(m_message, m_code);
}

Exception *Exception::clone() const
{
    return new Exception(m_message, m_code);
}
