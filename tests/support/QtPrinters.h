#pragma once

#include <QByteArray>
#include <QString>

#include <ostream>

// Readable failure output for Qt values in GoogleTest assertions.
inline void PrintTo(const QString &value, std::ostream *os)
{
    *os << '"' << value.toStdString() << '"';
}

inline void PrintTo(const QByteArray &value, std::ostream *os)
{
    *os << '"' << value.toStdString() << '"';
}
