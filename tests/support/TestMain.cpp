#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QTemporaryDir>

// Every suite runs with its own home and configuration roots, so nothing reads or
// writes the real user's folders.
int main(int argc, char **argv)
{
    QTemporaryDir home;
    qputenv("HOME", home.path().toUtf8());
    qputenv("XDG_CONFIG_HOME", (home.path() + QStringLiteral("/.config")).toUtf8());
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
