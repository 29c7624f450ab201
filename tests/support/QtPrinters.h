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

// For EXPECT_TRUE: a text that lacks what is looked for is shown whole, as a console or run log
// must be read to see what went wrong.
inline testing::AssertionResult foundIn(bool found, const std::string &text, const std::string &wanted)
{
    if (found)
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << "\"" << wanted << "\" is missing from:\n" << text;
}

inline testing::AssertionResult has(const QString &text, const QString &wanted)
{
    return foundIn(text.contains(wanted), text.toStdString(), wanted.toStdString());
}

inline testing::AssertionResult has(const QByteArray &text, const QByteArray &wanted)
{
    return foundIn(text.contains(wanted), text.toStdString(), wanted.toStdString());
}

inline testing::AssertionResult has(const QString &text, const QRegularExpression &pattern)
{
    return foundIn(text.contains(pattern), text.toStdString(), pattern.pattern().toStdString());
}
