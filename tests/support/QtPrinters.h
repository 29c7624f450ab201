#pragma once

#include <gtest/gtest.h>

#include <QByteArray>
#include <QRegularExpression>
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

// For EXPECT_TRUE: a text that lacks the part is shown whole, as a console or run log must be
// read to see what went wrong.
inline testing::AssertionResult partOf(bool found, const std::string &text, const std::string &part)
{
    if (found)
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << "\"" << part << "\" is missing from:\n" << text;
}

inline testing::AssertionResult has(const QString &text, const QString &part)
{
    return partOf(text.contains(part), text.toStdString(), part.toStdString());
}

inline testing::AssertionResult has(const QByteArray &text, const QByteArray &part)
{
    return partOf(text.contains(part), text.toStdString(), part.toStdString());
}

inline testing::AssertionResult has(const QString &text, const QRegularExpression &pattern)
{
    return partOf(text.contains(pattern), text.toStdString(), pattern.pattern().toStdString());
}
