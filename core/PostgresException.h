#pragma once

#include <QByteArray>
#include <QString>

#include <exception>

namespace core {

// Raised for an information file whose content is invalid. Deliberately outside the
// product's Exception family, so the run driver's handler does not take it.
class PostgresException : public std::exception
{
public:
    explicit PostgresException(const QString &message)
        : m_message(message)
        , m_what(message.toLocal8Bit())
    { }

    const char *what() const noexcept override { return m_what.constData(); }
    QString message() const { return m_message; }

private:
    QString m_message;
    QByteArray m_what;
};

} // namespace core
