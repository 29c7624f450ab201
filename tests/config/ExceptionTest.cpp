#include "config/exceptions/ConfigException.h"
#include "config/exceptions/InvalidValueException.h"
#include "config/exceptions/MissingKeyException.h"
#include "config/exceptions/UnknownKeyException.h"

#include "support/QtPrinters.h"

#include <gtest/gtest.h>

#include <QStringList>

#include <memory>

TEST(ExceptionTest, CarriesCodeMessageAndLocalBytes)
{
    const Exception e(QStringLiteral("Failed: %1").arg(QStringLiteral("x")), 42);
    EXPECT_EQ(e.code(), 42);
    EXPECT_EQ(e.message(), QStringLiteral("Failed: x"));
    EXPECT_STREQ(e.what(), "Failed: x");
}

TEST(ExceptionTest, WhatStaysValidForTheObjectsLifetime)
{
    const Exception e(QStringLiteral("long enough to live on the heap, not in a small buffer"));
    const char *first = e.what();
    const Exception copy(e);
    EXPECT_EQ(first, e.what());
    EXPECT_STREQ(copy.what(), first);
}

TEST(ExceptionTest, ConfigFamilyHasCodeZeroAndIsCaughtAsBase)
{
    const std::vector<std::function<void()>> raisers = {
        [] { throw ConfigException(QStringLiteral("m")); },
        [] { throw MissingKeyException(QStringLiteral("m")); },
        [] { throw InvalidValueException(QStringLiteral("m")); },
        [] { throw UnknownKeyException(QStringLiteral("m"), {QStringLiteral("a")}); },
    };
    for (const auto &raise : raisers) {
        try {
            raise();
            FAIL() << "nothing thrown";
        } catch (const Exception &e) {
            EXPECT_EQ(e.code(), 0);
            EXPECT_EQ(e.message(), QStringLiteral("m"));
        }
    }
}

TEST(ExceptionTest, CloneAndRaiseHandBackPlainException)
{
    const MissingKeyException original(QStringLiteral("Required key missing from config: a/b"));
    const std::unique_ptr<Exception> copy(original.clone());
    EXPECT_EQ(typeid(*copy), typeid(Exception));
    EXPECT_EQ(copy->message(), original.message());
    EXPECT_EQ(copy->code(), 0);

    const Exception &asBase = original;
    try {
        asBase.raise();
        FAIL() << "raise did not throw";
    } catch (const ConfigException &) {
        FAIL() << "raise kept the derived type";
    } catch (const Exception &e) {
        EXPECT_EQ(typeid(e), typeid(Exception));
        EXPECT_EQ(e.message(), original.message());
    }
}

TEST(ExceptionTest, UnknownKeyExceptionKeepsWholeKeyListThroughCopies)
{
    const QStringList keys = {QStringLiteral("foo/bar"), QStringLiteral("foo/baz")};
    const UnknownKeyException original(QStringLiteral("Unknown keys in config: foo/bar"), keys);
    const UnknownKeyException copy(original);
    EXPECT_EQ(copy.keys(), keys);
    EXPECT_EQ(copy.message(), QStringLiteral("Unknown keys in config: foo/bar"));
}
