#pragma once

#include "support/TestPostgresServer.h"

#include <gtest/gtest.h>

// One throwaway server per test suite; every test gets a fresh, empty "product" database.
class SharedServerTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite() { s_server = new TestPostgresServer; }
    static void TearDownTestSuite()
    {
        delete s_server;
        s_server = nullptr;
    }

    void SetUp() override
    {
        if (!s_server->error().isEmpty())
            GTEST_SKIP() << "no test server: " << s_server->error().toStdString();
        s_server->execute(QStringLiteral("DROP DATABASE IF EXISTS product WITH (FORCE)"));
        ASSERT_EQ(s_server->execute(QStringLiteral("CREATE DATABASE product")), QString());
    }

    static QString product() { return QStringLiteral("product"); }

    static inline TestPostgresServer *s_server = nullptr;
};
