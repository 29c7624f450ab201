#include "support/TestServer.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QTemporaryDir>

using namespace Qt::StringLiterals;

namespace {
// The program's one throwaway server, if a test made it, goes when the tests are done.
class SharedServerRelease : public ::testing::Environment
{
public:
    void TearDown() override { TestServer::releaseShared(); }
};
} // namespace

// Every program runs with its own home and configuration roots, so nothing reads or
// writes the real user's folders.
int main(int argc, char **argv)
{
    QTemporaryDir home;
    qputenv("HOME", home.path().toUtf8());
    qputenv("XDG_CONFIG_HOME", (home.path() + u"/.config"_s).toUtf8());
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new SharedServerRelease);
    return RUN_ALL_TESTS();
}
