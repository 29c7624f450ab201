#include "core/secrets/FileSecurity.h"
#include "core/secrets/SecretFile.h"
#include "support/QtPrinters.h"
#include "support/ToolSandbox.h"

#include <gtest/gtest.h>

#include <QRegularExpression>
#include <QTemporaryDir>

using namespace Qt::StringLiterals;

// The descriptor a new secret file gets, as built, and what the file system keeps of it once set
// (Wine keeps what its file modes can hold: nobody but the owner may read).
TEST(FileSecurityTest, ASecretFileIsForSystemTheAdministratorsAndTheToolsAccountAlone)
{
    const QString built = core::FileSecurity::ownerOnly().text();
    EXPECT_TRUE(has(built, QRegularExpression(uR"(^D:P\(A;;FA;;;SY\)\(A;;FA;;;BA\)\(A;;FA;;;S-1-5-[-\d]+\)$)"_s)));
    const QTemporaryDir folder;
    const QString path = folder.filePath(u"password.data"_s);
    ToolSandbox::write(path, "secret");
    ToolSandbox::exposeToEveryone(path);
    EXPECT_TRUE(core::SecretFile::readableByEveryone(path));
    ASSERT_TRUE(core::SecretFile::restrictAccess(path));
    EXPECT_TRUE(ToolSandbox::ownerOnly(path));
    EXPECT_FALSE(core::SecretFile::readableByEveryone(path));
}
